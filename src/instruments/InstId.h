#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Helpers that read instrument identifiers (exchange contract codes) and the lists of them in the ini file.
/// All are free of state and may be called from any thread.

std::string RemoveSpace(std::string& text);  ///< a copy without its blanks (0x20); tabs stay
bool FindAllTag(std::string& text);          ///< "all" in any case, anywhere in the text
bool findStringIgnoreCase(const std::string& text, const std::string& part);
bool contains_digit(const char* text);

/// An option has an upper-case C (call) or P (put) with a digit on either side: SR505C6000 is one, SR505 is not.
bool IsOption(const std::string& id);
/// The future that an option is on: SR505 for SR505C6000.
/// @return 0, or 0xFFFFFFFF when @p id is no option; @p out is then unchanged
std::uint32_t OptionExtractSecondClass(const std::string& id, std::string& out);
/// The leading letters within the first @p length characters: SR for SR505C6000; empty when there are none.
std::string ExtractClass(const char* text, std::uint32_t length);
/// The same for a whole id.
std::string ExtractClass(const std::string& id);

// The first four characters alone make an id a combination.
bool isCalendarSpread(const std::string& id);      ///< begins "SPD-"
bool isInterProductSpread(const std::string& id);  ///< begins "IPS-"
/// The card's table that holds the instrument: 1 for a combination, 0 for everything else.
std::uint8_t tableOf(const std::string& id);

bool contains(const std::vector<std::string>& list, const std::string& entry);
/// Joins a list with "," between its entries.
std::string joinWithComma(const std::vector<std::string>& entries);
