#include "log_option.h"

#include "tovra/tovra.h"

#include <cstdio>
#include <string_view>

namespace tovra::cli {

namespace {

// The configuration keys of the library's categories, without their "log".
constexpr std::string_view kCategories[] = {
    "reader", "error", "protocol", "payload", "tcp", "com", "usb", "ble", "gadget", "cust",
    "udpmanager", "commanager", "usbmanager", "blemanager",
};
// Payload dumps are the short form of protocol dumps: "all" takes the long one.
constexpr std::string_view kLeftOutOfAll = "payload";

bool known(std::string_view name) {
    for (const std::string_view category : kCategories) {
        if (name == category) return true;
    }
    return false;
}

std::string allCategories() {
    std::string text;
    for (const std::string_view category : kCategories) {
        if (category != kLeftOutOfAll) text += "log" + std::string(category) + "=1\n";
    }
    return text;
}

// Logging lines may come from any of the library's threads; each is written whole.
void TOVRA_CALL toStandardError(void*, const char* line) {
    std::string text = line;
    if (text.empty() || text.back() != '\n') text += '\n';
    std::fputs(text.c_str(), stderr);
}

}  // namespace

std::optional<std::string> loggingParameter(const std::string& categories) {
    std::string switches;
    std::string_view rest = categories;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        std::string_view name = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        if (name.substr(0, 3) == "log") name.remove_prefix(3);
        if (name == "all") {
            switches += allCategories();
        } else if (known(name)) {
            switches += "log" + std::string(name) + "=1\n";
        } else {
            return std::nullopt;
        }
    }
    if (switches.empty()) return std::nullopt;
    return "[TOVRA]\n" + switches;
}

std::string loggingCategoryNames() {
    std::string text = "all";
    for (const std::string_view category : kCategories) text += "," + std::string(category);
    return text;
}

void enableLogging(const std::string& parameter) {
    TOVRA_SetLoggingParameter(parameter.c_str());
    TOVRA_SetLoggingCallback(nullptr, toStandardError);
}

}  // namespace tovra::cli
