// What the tool prints. Results go to standard output, as text or, with --json, as one
// JSON object per line (JSON Lines); progress and failures go to standard error as text.
// Library threads print through the same object, so every line is written whole.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tovra::cli {

// One flat JSON object, built field by field.
class JsonObject {
public:
    JsonObject& add(std::string_view key, std::string_view text);
    JsonObject& add(std::string_view key, const char* text) { return add(key, std::string_view(text)); }
    JsonObject& add(std::string_view key, std::int64_t number);
    JsonObject& add(std::string_view key, double number);
    JsonObject& addNull(std::string_view key);
    std::string text() const { return "{" + fields_ + "}"; }

private:
    void key(std::string_view name);
    std::string fields_;
};

// A JSON string literal. Bytes of 0x80 and above are taken as Latin-1 characters, so that
// whatever a device or library says, the line stays valid JSON.
std::string jsonString(std::string_view text);

class Output {
public:
    explicit Output(bool json) : json_(json) {}
    bool json() const { return json_; }

    // A result: `text` or `object`, as the mode asks.
    void result(const std::string& text, const JsonObject& object);
    void progress(const std::string& text);  // a whole line on standard error
    // A progress line redrawn in place; only where standard error is a terminal.
    void status(const std::string& text);
    void endStatus();  // leaves the last status line standing
    // A failure: "tovra: <what>: <why>" on standard error and, with --json, an object with
    // "error" (the code) and "errorText" on standard output for scripts.
    void failure(const std::string& what, std::int32_t code, const std::string& why);

private:
    std::mutex mutex_;
    bool json_;
    bool statusShown_ = false;
};

}  // namespace tovra::cli
