#include "commands.h"
#include "ending.h"
#include "hex.h"
#include "output.h"
#include "reader.h"
#include "rules.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace tovra::cli {

namespace {

// How long a stop after --count waits for the last answer to go out.
constexpr unsigned kLastAnswerSeconds = 10;

struct Listening {
    Listening(Output& out, const Answers& known, unsigned requestLimit)
        : output(out), answers(known), limit(requestLimit) {}

    Output& output;
    const Answers& answers;
    unsigned limit;
    Ending ending;
    std::atomic<unsigned> requests{0};
    // The library copies the response before it calls us again on this connection.
    Bytes response;
};

void TOVRA_CALL onConnected(std::int32_t reader, void* context, const char* connection) {
    auto& listening = *static_cast<Listening*>(context);
    listening.output.result("reader " + std::to_string(reader) + " connected " + connection,
                            JsonObject().add("event", "connected").add("reader", std::int64_t{reader}).add(
                                "connection", connection));
}

void TOVRA_CALL onDisconnected(std::int32_t reader, void* context) {
    auto& listening = *static_cast<Listening*>(context);
    listening.output.result("reader " + std::to_string(reader) + " disconnected",
                            JsonObject().add("event", "disconnected").add("reader", std::int64_t{reader}));
}

void printRequest(Output& output, std::int32_t reader, const Bytes& request, const std::optional<Bytes>& answer) {
    JsonObject object;
    object.add("event", "request").add("reader", std::int64_t{reader}).add("request", hexText(request, false));
    std::string text = "reader " + std::to_string(reader) + " request " + hexText(request, true);
    if (answer) {
        object.add("response", hexText(*answer, false));
        text += " answer " + hexText(*answer, true);
    } else {
        object.addNull("response");
        text += " unanswered";
    }
    output.result(text, object);
}

std::int32_t TOVRA_CALL onRequest(std::int32_t reader, void* context, const std::uint8_t* request,
                                  std::uint64_t length, std::uint8_t** response, std::uint64_t* responseLength) {
    auto& listening = *static_cast<Listening*>(context);
    const Bytes asked(request, request + length);
    const std::optional<Bytes> answer = listening.answers.answer(asked);
    printRequest(listening.output, reader, asked, answer);
    // Stopped from in here, the listener still sends this answer first.
    if (listening.limit > 0 && ++listening.requests == listening.limit) TOVRA_StopListener(reader);
    listening.ending.wake();
    if (!answer) return -1;
    listening.response = *answer;
    *response = listening.response.data();
    *responseLength = listening.response.size();
    return 0;
}

bool readAnswers(const ListenOptions& options, Answers& answers) {
    if (!options.answer.empty()) {
        const auto fallback = parseHex(options.answer);
        if (!fallback || fallback->empty()) {
            std::fprintf(stderr, "tovra listen: --answer is not hex bytes: %s\n", options.answer.c_str());
            return false;
        }
        answers.setFallback(*fallback);
    }
    if (options.rulesFile.empty()) return true;
    std::ifstream in(options.rulesFile);
    std::string error;
    if (!in) error = "cannot read it";
    else answers.readRules(in, error);
    if (error.empty()) return true;
    std::fprintf(stderr, "tovra listen: %s: %s\n", options.rulesFile.c_str(), error.c_str());
    return false;
}

bool connected(const Reader& reader) {
    return std::strstr(TOVRA_GetConnectionState(reader.handle()), "=Con") != nullptr;
}

}  // namespace

int listen(const ListenOptions& options, Output& output) {
    Answers answers;
    if (!readAnswers(options, answers)) return 2;
    Listening listening(output, answers, options.count);
    const Reader reader(2, nullptr);
    if (!reader.ok()) return reader.failCreate(output);
    TOVRA_SetReaderConnectedCallbacks(reader.handle(), &listening, onConnected, onDisconnected);
    TOVRA_SetReaderRequestCallback(reader.handle(), &listening, onRequest);
    Ending::catchSignals();
    if (const std::int32_t result = TOVRA_StartListener(reader.handle(), options.listener.c_str()); result < 0) {
        return reader.fail(output, "listen", result);
    }
    output.result("listening " + options.listener,
                  JsonObject().add("event", "listening").add("listener", options.listener));
    const auto limitReached = [&] { return options.count > 0 && listening.requests >= options.count; };
    listening.ending.wait(limitReached, options.seconds);
    if (limitReached()) listening.ending.wait([&] { return !connected(reader); }, kLastAnswerSeconds);
    TOVRA_StopListener(reader.handle());
    return 0;
}

}  // namespace tovra::cli
