#include "src/card/RowId.h"

void conToAscii(const char* id, std::uint32_t* words) {
    unsigned char bytes[kIdBytes] = {};
    for (unsigned int i = 0; i < kIdBytes && id[i] != '\0'; ++i) bytes[i] = static_cast<unsigned char>(id[i]);
    for (unsigned int w = 0; w < kIdBytes / 4; ++w) {
        const unsigned char* b = bytes + 4 * w;
        words[w] = static_cast<std::uint32_t>(b[0]) << 24 | static_cast<std::uint32_t>(b[1]) << 16 |
                   static_cast<std::uint32_t>(b[2]) << 8 | b[3];
    }
}
