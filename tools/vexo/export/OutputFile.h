#pragma once

#include <zstd.h>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vexo::exporting {

/// A file that an export, or another command, writes. It gets its name only when it is complete, and never replaces a
/// file. Until then it has no name; where the file system cannot do that, it is NAME.part. If its name ends in .zst it
/// is compressed. Failures throw vexo::Failure; then there is no file.
class OutputFile {
public:
    /// @param path    "-" = standard output
    /// @param option  that named it, for messages
    explicit OutputFile(const std::string& path, std::string option = "--output");
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const void* data, std::size_t size);
    /// Replaces bytes at the beginning. Only of a file that is not compressed, nor standard output.
    void rewriteHead(const void* data, std::size_t size);
    /// Writes out what is left, and gives the file its name.
    void finish();

    std::uint64_t writtenBytes() const { return m_written; }
    static bool isCompressedName(const std::string& path);

private:
    void open();
    void writeAll(const char* data, std::size_t size);
    void pack(const void* data, std::size_t size, bool isEnd);
    bool closeFile();
    void finishStandardOutput() const;
    void finishNameless();
    void finishPart();
    [[noreturn]] void fail(const char* what) const;

    std::string m_path;
    std::string m_option;
    std::string m_part;  // its name until it is complete; empty: it has none
    int m_fd = -1;
    bool m_isFinished = false;
    std::uint64_t m_written = 0;
    std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx*)> m_packer{nullptr, ZSTD_freeCCtx};
    std::vector<char> m_packed;
};

}  // namespace vexo::exporting
