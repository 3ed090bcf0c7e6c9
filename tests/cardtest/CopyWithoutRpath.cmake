# cmake -DPROGRAM=<program> -DCOPY=<copy of it> -P CopyWithoutRpath.cmake
cmake_path(GET COPY PARENT_PATH directory)
file(MAKE_DIRECTORY ${directory})
file(COPY_FILE ${PROGRAM} ${COPY})
file(RPATH_REMOVE FILE ${COPY})
