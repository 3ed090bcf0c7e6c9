#include "sim/scenario/KeySettings.h"

#include <filesystem>
#include <sstream>

#include "sim/scenario/CardKeys.h"
#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

std::string withAbsolutePath(const KeySettings& settings, const std::string& text) {
    try {
        const SettingParts parts = partsOf(settings, text);
        if (!isPath(parts.section, parts.key) || parts.value.empty()) return text;
        return parts.section + "." + parts.key + "=" + std::filesystem::absolute(parts.value).string();
    } catch (const Rejected&) {
        return text;
    }
}

}  // namespace

KeySettings settingsOfEnvironment(const std::string& lines) {
    KeySettings settings{kSettingsVariable, {}};
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);)
        if (!line.empty()) settings.texts.push_back(line);
    return settings;
}

std::string linesOf(const KeySettings& settings) {
    std::string lines;
    for (const std::string& text : settings.texts) lines += text + '\n';
    return lines;
}

KeySettings withAbsolutePaths(const KeySettings& settings) {
    KeySettings absolute{settings.option, {}};
    for (const std::string& text : settings.texts) absolute.texts.push_back(withAbsolutePath(settings, text));
    return absolute;
}

}  // namespace vexo_sim::scenario
