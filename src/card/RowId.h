#pragma once

#include <cstdint>

constexpr unsigned int kIdBytes = 16;  ///< room for an id in a row of the card's tables

/// Packs an id as the card's tables hold it: four characters a word, the first in bits 31-24, zero-padded.
/// @param words  room for four words; an id is cut after 16 characters
void conToAscii(const char* id, std::uint32_t* words);
