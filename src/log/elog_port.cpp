#include "src/log/elog.h"

#include "src/log/StandardWrite.h"

int elog_port_init(const char* dir, const char* name) { return elog_file_init(dir, name); }

void elog_port_fini() { elog_file_fini(); }

void elog_port_output(const char* buf, std::size_t size) {
    // Held until the line is in the file, so that both places show the lines in the same order. The thread does not
    // hold the log lock while it waits for standard output.
    const standard_write::StdoutTurn out;
    out.write(buf, size);
    elog_file_write(buf, size);
}

void elog_port_output_from_handler(const char* buf, std::size_t size, long date) {
    standard_write::writeAtOnce(1, buf, size);
    elog_file_write_from_handler(buf, size, date);
}
