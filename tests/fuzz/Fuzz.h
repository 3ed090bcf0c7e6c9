#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// What a fuzz target is called with, by libFuzzer or by RunFiles.cpp, once for each input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process with the text unless @p holds. The fuzzer then keeps the input.
void Require(bool holds, const char* what);
void RequireEqual(const std::string& ours, const std::string& expected, const char* what);

/// Takes an input apart from its front. Behind its end all numbers are 0 and all texts empty.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

    bool IsEmpty() const { return m_left == 0; }
    std::uint8_t Byte();
    std::uint16_t Word();  ///< low byte first
    std::uint64_t Number(unsigned int bytes);
    /// Up to @p size bytes. @return where they begin; @p size becomes what there was
    const std::uint8_t* Bytes(std::size_t& size);
    std::string Rest();

private:
    const std::uint8_t* m_data;
    std::size_t m_left;
};

/// A copy without spare room on either side, so that the sanitizer sees every read past it.
std::unique_ptr<unsigned char[]> ExactCopy(const std::uint8_t* data, std::size_t size);

/// Standard output and the log lines of a million executions are of no use. Standard error stays.
void DropStandardOutput();

/// A file of this process in memory: cheap to write anew for each execution.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    void Write(const void* data, std::size_t size) const;
    void Write(const std::string& text) const { Write(text.data(), text.size()); }
    const std::string& Path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;  // of /proc, so it can be opened like any file
};

}  // namespace fuzz
