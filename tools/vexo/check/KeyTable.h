#pragma once

#include <string>
#include <vector>

namespace vexo::check {

enum class Type { kDevice, kNumber, kCpu, kPort, kAddress, kMulticast, kMac, kSwitch, kVersion, kInsts, kReceive };

/// One key that the library reads.
struct Key {
    const char* section;  ///< "channelN" stands for channel0 to channel15
    const char* name;     ///< as the example writes it; the library folds the case
    Type type;
    long least;  ///< of a number
    long most;
    const char* range;      ///< in words
    const char* byDefault;  ///< without the key
    const char* example;
    const char* meaning;
    const char* logged;
};

/// Every key that the library reads, in the order of docs/configuration.md. The check works from this table; tests
/// compare it with the page and with examples/zce.ini.
const std::vector<Key>& allKeys();

const char* nameOf(Type type);  ///< "address"

/// The section of the table that @p section belongs to: "channelN" for channel0 to channel15; empty for unknown ones.
std::string tableSection(const std::string& section);

/// Null when the table has no such key. @param name in lower case
const Key* findKey(const std::string& tableSection, const std::string& name);

/// All sections as a file writes them: config, version, channel0 to channel15.
std::vector<std::string> allSections();

/// For people: every key with type, range, default and meaning.
std::string keysAsText();
std::string keysAsJson();

std::string lowered(std::string text);

/// Those of @p names that are nearest to @p word, when they are near enough to be a slip of the hand; several when they
/// are equally near.
std::vector<std::string> nearest(const std::string& word, const std::vector<std::string>& names);

}  // namespace vexo::check
