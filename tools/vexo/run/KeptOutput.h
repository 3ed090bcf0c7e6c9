#pragma once

#include <string>

namespace vexo::run {

/// The files with what the starts of an application printed: NAME for the newest start, NAME.1 for the one before, and
/// so on.
class KeptOutput {
public:
    /// @param name   of the newest file, with its directory
    /// @param count  of files to keep, from 1
    KeptOutput(std::string name, unsigned count) : m_name(std::move(name)), m_count(count) {}

    /// Moves the files on by one, removes the oldest, and makes an empty one for the next start.
    /// @return its descriptor, closed by exec. Throws Failure when there can be none.
    int openNext() const;

    const std::string& name() const { return m_name; }
    /// Why the directory takes no more output, such as "No space left on device"; empty when it does.
    std::string fault() const;

private:
    std::string older(unsigned starts) const;

    std::string m_name;
    unsigned m_count;
};

}  // namespace vexo::run
