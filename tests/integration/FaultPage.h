#pragma once

#include <map>
#include <string>
#include <vector>

/// docs/faults.md, as far as it can be held against the library: its code blocks.
namespace fault_page {

/// One example of a fault: what is added to the common scenario, and what the page says comes of it.
struct Example {
    std::string fault;  // the heading it stands under
    std::string ini;
    std::vector<std::string> log;    // "+line" of the log that only this card brings about, "-line" that it prevents
    std::vector<std::string> sight;  // what the application saw
    std::size_t logLine = 0;         // lines of the page where the two blocks begin and end
    std::size_t logEnd = 0;
    std::size_t sightLine = 0;
    std::size_t sightEnd = 0;
};

struct Page {
    std::vector<std::string> lines;
    std::map<std::string, std::string> files;  // the common files, by name
    std::vector<std::string> faults;           // headings, in order
    std::vector<Example> examples;
};

Page Read(const std::string& path);

/// Writes the page with what the examples' blocks really are.
void Write(const std::string& path, const Page& page, const std::vector<Example>& examples);

}  // namespace fault_page
