#pragma once

#include "api/error_codes.h"
#include "plugins/tovra_plugin.h"
#include "protocol/protocol_frame.h"

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tovra::test {

// A transport scripted by the test: receives answer from a queue (bytes or a code; the
// pending value once the queue is empty), transmits are recorded whole.
class ScriptedPlugin : public TovraPlugin {
public:
    struct Answer {
        std::int32_t code = 0; // used when `bytes` is empty and code != 0
        std::vector<std::uint8_t> bytes;
    };

    explicit ScriptedPlugin(ConnectionRecord* owner, std::string errorText = "SCRIPTED error")
        : TovraPlugin(owner), errorText_(std::move(errorText))
    {
    }

    void queueFrame(const ProtocolFrame& frame)
    {
        std::lock_guard guard(lock_);
        answers_.push_back({0, {frame.bytes.begin(), frame.bytes.begin() + static_cast<long>(frame.length)}});
    }
    void queueCode(std::int32_t code)
    {
        std::lock_guard guard(lock_);
        answers_.push_back({code, {}});
    }
    void failNextConnect(std::int32_t code) { connectResult_ = code; }

    const char* pliGetErrorText(std::int32_t code) override
    {
        text_ = errorText_ + " " + std::to_string(code);
        return text_.c_str();
    }
    std::int32_t pliConnect(const char*) override
    {
        lastError_ = 0;
        return connectResult_ < 0 ? fail(connectResult_) : 0x7000001;
    }
    std::int32_t pliDisconnect(std::int32_t) override { return 0; }
    std::int32_t pliTransmit(std::int32_t, const std::uint8_t* data, std::size_t length) override
    {
        if (inside_.fetch_add(1) != 0) overlapped_ = true;
        std::vector<std::uint8_t> copy(data, data + length);
        {
            std::lock_guard guard(lock_);
            sent_.push_back(std::move(copy));
        }
        inside_.fetch_sub(1);
        return 0;
    }
    std::int32_t pliReceive(std::int32_t, std::uint8_t* buffer, std::size_t size) override
    {
        ++receiveCalls_;
        std::lock_guard guard(lock_);
        if (answers_.empty()) return err::ReceivePending;
        Answer answer = std::move(answers_.front());
        answers_.pop_front();
        if (answer.bytes.empty()) return answer.code != 0 ? fail(answer.code) : 0;
        const std::size_t n = std::min(size, answer.bytes.size());
        std::memcpy(buffer, answer.bytes.data(), n);
        return static_cast<std::int32_t>(n);
    }

    std::vector<std::vector<std::uint8_t>> sent()
    {
        std::lock_guard guard(lock_);
        return sent_;
    }
    bool overlapped() const { return overlapped_; }
    int receiveCalls() const { return receiveCalls_; }

private:
    std::mutex lock_;
    std::deque<Answer> answers_;
    std::vector<std::vector<std::uint8_t>> sent_;
    std::atomic<int> inside_{0};
    std::atomic<bool> overlapped_{false};
    std::atomic<int> receiveCalls_{0};
    std::int32_t connectResult_ = 0;
    std::string errorText_;
    std::string text_;
};

} // namespace tovra::test
