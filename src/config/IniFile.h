#pragma once

#include <iniparser/dictionary.h>
#include <string>

/// Loads an ini file into a dictionary for iniparser's getters. Reads it exactly as iniparser_load of iniparser 4.1
/// does, and prints the same messages about a malformed file on standard error. But it never returns only a part of the
/// file: iniparser_load crashes or leaves keys out when memory runs out. Pipes, FIFOs and terminals are read to their
/// end.
/// @param refusal  why the file is not read to its end; null when it cannot be opened or is malformed
/// @return the dictionary, for iniparser_freedict; null when the file is not loaded
/// Throws std::bad_alloc.
dictionary* loadIniFile(const std::string& path, const char*& refusal);
