#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <stdexcept>
#include <string>

#include "capture/Reader.h"

namespace vexo::data {

/// A file cannot be opened, or not be read on. The text begins with its name.
struct SourceError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The bytes of a capture file for capture::Reader: a plain file, one compressed with zstd, or standard input. It is
/// read piece by piece and not mapped: a file that its writer cuts meanwhile must not end this process.
class CaptureSource {
public:
    /// @param path  "-" = standard input. Throws SourceError.
    explicit CaptureSource(const std::string& path);
    /// Throws SourceError if the file cannot be opened now. A pipe is not opened: that would take it from its reader.
    /// @return bytes of the file; 0 if that is not known
    static std::uint64_t check(const std::string& path);
    ~CaptureSource();
    CaptureSource(const CaptureSource&) = delete;
    CaptureSource& operator=(const CaptureSource&) = delete;

    /// Goes bad when the file cannot be read on: see failure().
    std::istream& stream() { return *m_stream; }
    /// Bytes of the file that have been read, and all that it had when it was opened; 0 if that is not known.
    std::uint64_t readBytes() const;
    std::uint64_t fileBytes() const { return m_fileBytes; }
    /// Why the stream went bad; empty if it did not.
    const std::string& failure() const { return m_failure; }
    /// Reads a compressed file to the checksum of what has been read, for a reader that stops before: see failure().
    void readToChecksum();

private:
    class FileBuffer;
    class ZstdBuffer;

    std::string m_failure;
    std::uint64_t m_fileBytes = 0;
    std::unique_ptr<FileBuffer> m_file;
    std::unique_ptr<ZstdBuffer> m_unpacked;  // null for a plain file
    std::unique_ptr<std::istream> m_stream;
};

/// What a reader of this source found wrong, for messages: "at byte 1234: ..."; empty if nothing. It tells, too, if
/// packets before that byte may be wrong.
std::string faultOf(const capture::Reader& reader, CaptureSource& source);

}  // namespace vexo::data
