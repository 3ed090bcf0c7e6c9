"""The tree of a mutation campaign: a copy of the sources that is built once and then stays as it is.

A mutant is compiled beside it. Its objects are put in front of the library when a test program is linked, so the linker
takes them instead of the library's own.
"""
import filecmp
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import threading
from pathlib import Path

FLAGS = "-O0 -g0"
OPTIMIZED = ("-O0", "-O2")
WITH_LINES = ("-g0", "-gline-tables-only")
# Without the flags that only ninja needs. Warnings about a mutant are of no use.
DEPENDENCY_FLAGS = re.compile(r" -MD -MT \S+ -MF \S+")


def quiet(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", **options)


def preamble(source):
    """The lines up to the last #include before the first line of code."""
    end, at, depth = 0, 0, 0
    for line in source.splitlines(keepends=True):
        at += len(line)
        word = line.strip()
        if word.startswith("#"):
            depth += word.startswith("#if") - word.startswith("#endif")
            if word.startswith(("#include", "#endif")) and depth == 0:
                end = at
        elif word and not word.startswith("//"):
            break
    return source[:end]


class Tree:
    def __init__(self, sources, work, programs):
        self.sources, self.root, self.build, self.objects = sources, work / "tree", work / "build", work / "objects"
        self.reach = work / "reach.json"  # kept by mutation_tests.Reach
        self.names = programs
        self.lock = threading.Lock()

    def copy(self):
        names = subprocess.run(["git", "-C", self.sources, "ls-files", "-co", "--exclude-standard", "-z"],
                               check=True, capture_output=True, text=True).stdout
        for name in filter(None, names.split("\0")):
            if not (self.sources / name).is_file():
                continue
            content, copy = (self.sources / name).read_bytes(), self.root / name
            if name == "sim/CMakeLists.txt":
                # The card is not under test here. Optimized, it halves the time of the tests that use it.
                content = b"add_compile_options(-O2)\n" + content
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(self.sources / name, copy)
                if name.startswith(("src/", "tests/")):
                    self.reach.unlink(missing_ok=True)  # its lines are others now

    def prepare(self):
        self.copy()
        done = quiet(["cmake", "-S", self.root, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                      f"-DCMAKE_C_FLAGS_DEBUG={FLAGS}", f"-DCMAKE_CXX_FLAGS_DEBUG={FLAGS}",
                      "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", *self.linker(),
                      "-DVEXO_BUILD_TOOLS=ON", "-DBUILD_TESTING=ON",
                      "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"])
        if done.returncode != 0:
            sys.exit(done.stdout)
        done = quiet(["ninja", "-C", self.build, *self.names, "vexo_reach"])
        if done.returncode != 0:
            sys.exit(done.stdout)
        shutil.rmtree(self.objects, ignore_errors=True)
        self.objects.mkdir(parents=True)
        commands = json.loads((self.build / "compile_commands.json").read_text())
        self.compile_commands = {self.output(c["command"]): DEPENDENCY_FLAGS.sub("", c["command"]) + " -w" for c in commands}
        self.object_of = {Path(c["file"]).relative_to(self.root).as_posix(): self.output(c["command"]) for c in commands
                          if "/vexo_zce_md_objects.dir/" in c["command"]}
        self.paths = {self.output(c["command"]): Path(c["file"]) for c in commands}
        self.dependents = self.read_dependents()
        self.links = {name: self.link_command(name) for name in [*self.names, "vexo_zce_md"]}
        self.members = {name: self.read_members(name) for name in self.names}

    @staticmethod
    def linker():
        """The quickest one there is."""
        if not shutil.which("ld.lld"):
            return []
        return ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld"]

    @staticmethod
    def output(command):
        return re.search(r"-o (\S+)", command).group(1)

    def read_dependents(self):
        """Header, from the root, to the objects that include it."""
        found, target = {}, None
        for line in quiet(["ninja", "-C", self.build, "-t", "deps"]).stdout.splitlines():
            if line and not line.startswith(" "):
                target = line.split(":")[0]
            elif line.endswith(".h"):
                # ccache writes a path as seen from the build.
                path = os.path.relpath(os.path.join(self.build, line.strip()), self.root)
                if path.startswith("src/"):
                    found.setdefault(path, set()).add(target)
        return found

    def link_command(self, name):
        """The command that links the target @p name, split into words."""
        output = re.compile(rf" -o (\S*/)?({name}|lib{name}\.so\S*) ")
        for line in quiet(["ninja", "-C", self.build, "-t", "commands", name]).stdout.splitlines():
            for part in line.split(" && "):
                if output.search(part):
                    return shlex.split(part)
        return sys.exit(f"no command links {name}")

    def uses_shared_library(self, name):
        return any("libvexo_zce_md.so" in word for word in self.links[name])

    def read_members(self, name):
        """The objects of the library that the program really contains."""
        if self.uses_shared_library(name):
            return set(self.object_of.values())
        output = self.build / f"{name}.members"
        done = quiet([*self.link_to(name, output, []), "-Wl,--trace"], cwd=self.build)
        if done.returncode != 0:
            sys.exit(done.stdout)
        output.unlink()
        contained = set(re.findall(r"libvexo_zce_md_static\.a\((\S+?)\)", done.stdout))
        return {made for source, made in self.object_of.items() if Path(source).name + ".o" in contained}

    def link_to(self, name, output, objects):
        """Links @p name as @p output with @p objects (name of the object it replaces, path)."""
        replaced = dict(objects)
        words = list(self.links[name])
        words[words.index("-o") + 1] = str(output)
        words = [str(replaced.pop(word, word)) for word in words]
        first = next(i for i, word in enumerate(words) if word.endswith(".o"))
        return words[:first] + [str(path) for path in replaced.values()] + words[first:]

    def program(self, name):
        words = self.links[name]
        return self.build / words[words.index("-o") + 1]

    def shared_name(self):
        """The name under which the loader looks for the library."""
        return next(word for word in self.links["vexo_zce_md"] if word.startswith("-Wl,-soname,")).split(",")[2]

    def compile(self, made, output, source, extra=(), instead=None):
        """Compiles what the object @p made is made of, from the file @p source. @p instead is a flag and another one
        in its place. @return what the compiler said, or None"""
        words = self.words(made, instead)
        words[words.index("-o") + 1] = str(output)
        words[words.index("-c") + 1] = str(source)
        done = quiet([words[0], *extra, *words[1:]], cwd=self.build)
        return None if done.returncode == 0 else done.stdout

    def words(self, made, instead):
        command = self.compile_commands[made]
        return shlex.split(command.replace(*instead) if instead else command)

    def headers(self, path, instead=None):
        """Flags that give the file @p path of the library its includes, compiled once."""
        text = preamble((self.root / path).read_text())
        place = self.objects / (path.replace("/", "_") + (instead[1] if instead else ""))
        compiled = place.with_suffix(place.suffix + ".pch")
        with self.lock:
            if not compiled.exists():
                header = place.with_suffix(place.suffix + ".h")
                header.write_text(text)
                words = self.words(self.object_of[path], instead)
                words[words.index("-o") + 1] = str(compiled)
                words[words.index("-c"):words.index("-c") + 2] = ["-x", "c++-header", str(header)]
                done = quiet(words, cwd=self.build)
                if done.returncode != 0:
                    sys.exit(done.stdout)
        return ["-include-pch", str(compiled)]

    def same_code(self, mutant, source, scratch):
        """Whether the optimizing compiler makes the same object of the mutant. Not asked for headers."""
        if not mutant.path.endswith(".cpp"):
            return False
        made, extra = self.object_of[mutant.path], self.headers(mutant.path, OPTIMIZED)
        place = scratch / Path(mutant.path).name
        objects = []
        for text, name in ((source, "before.o"), (mutant.apply(source), "after.o")):
            place.write_text(text)  # the same name: an object tells it
            objects.append(scratch / name)
            if self.compile(made, objects[-1], place, extra, OPTIMIZED) is not None:
                return False
        return filecmp.cmp(*objects, shallow=False)


class Build:
    """The objects and programs of one mutant, in a folder of its own."""

    def __init__(self, tree, mutant, source, scratch):
        self.tree, self.mutant, self.scratch = tree, mutant, scratch
        self.objects = {}
        self.is_header = not mutant.path.endswith(".cpp")
        self.text = scratch / "changed" / mutant.path
        shutil.rmtree(scratch / "changed", ignore_errors=True)
        self.text.parent.mkdir(parents=True)
        self.text.write_text(mutant.apply(source))

    def changes(self, name):
        """The objects of the program @p name that the mutant changes."""
        tree = self.tree
        if not self.is_header:
            return {tree.object_of[self.mutant.path]} & tree.members[name]
        includes = tree.dependents.get(self.mutant.path, set())
        return includes & (tree.members[name] | set(tree.links[name]))

    def link(self, name):
        """@return environment that the program needs and its path, or what the compiler said"""
        tree = self.tree
        changed = self.changes(name)
        for made in sorted(changed - self.objects.keys()):
            output = self.scratch / (made.replace("/", "_"))
            if self.is_header:
                error = tree.compile(made, output, tree.paths[made], ["-I", str(self.scratch / "changed")])
            else:
                error = tree.compile(made, output, self.text, tree.headers(self.mutant.path))
            if error is not None:
                return None, error
            self.objects[made] = output
        objects = [(made, self.objects[made]) for made in changed]
        environment = {}
        if tree.uses_shared_library(name):
            library = self.scratch / tree.shared_name()
            own = [one for one in objects if one[0] in set(tree.object_of.values())]
            done = quiet(tree.link_to("vexo_zce_md", library, own), cwd=tree.build)
            objects = [one for one in objects if one not in own]
            environment["LD_LIBRARY_PATH"] = str(self.scratch)
            if done.returncode != 0:
                return None, done.stdout
        program = self.scratch / name
        done = quiet(tree.link_to(name, program, objects), cwd=tree.build)
        return (environment, program) if done.returncode == 0 else (None, done.stdout)
