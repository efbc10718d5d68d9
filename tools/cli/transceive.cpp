#include "commands.h"
#include "hex.h"
#include "latency.h"
#include "output.h"
#include "reader.h"

#include "api/error_texts.h"

#include <cstdio>

namespace tovra::cli {

namespace {

using Clock = std::chrono::steady_clock;

// The largest payload a frame can carry.
constexpr std::size_t kResponseCapacity = 32768;
// Redraw the progress line at most this often, so that drawing costs nothing measurable.
constexpr auto kStatusPeriod = std::chrono::milliseconds(100);

void printResponse(Output& output, const Bytes& request, const Bytes& response, std::chrono::nanoseconds took) {
    const double ms = std::chrono::duration<double, std::milli>(took).count();
    JsonObject object;
    object.add("request", hexText(request, false)).add("response", hexText(response, false));
    std::string text = hexText(response, true);
    // The payload starts with the command code; a response's second byte is its status.
    if (response.size() >= 2) {
        const std::string status = readerStatusText(response[1]);
        object.add("status", static_cast<std::int64_t>(response[1])).add("statusText", status);
        text += "  [" + hexText(&response[1], 1, false) + " " + status + "]";
    }
    object.add("ms", ms);
    output.result(text, object);
}

void printSummary(Output& output, const LatencySummary& summary) {
    char text[160];
    std::snprintf(text, sizeof text, "%zu exchanges: p50 %.3f ms, p99 %.3f ms, max %.3f ms", summary.count,
                  summary.p50Ms, summary.p99Ms, summary.maxMs);
    output.result(text, JsonObject()
                            .add("count", static_cast<std::int64_t>(summary.count))
                            .add("p50Ms", summary.p50Ms)
                            .add("p99Ms", summary.p99Ms)
                            .add("maxMs", summary.maxMs));
}

class Exchanges {
public:
    Exchanges(const Reader& reader, Output& output) : reader_(reader), output_(output), response_(kResponseCapacity) {}

    // One round of requests; the responses are printed when `print` is set.
    int round(const std::vector<Bytes>& requests, bool print) {
        for (const Bytes& request : requests) {
            std::uint64_t length = response_.size();
            const auto start = Clock::now();
            const std::int32_t result =
                TOVRA_Transceive(reader_.handle(), request.data(), request.size(), response_.data(), &length);
            const auto took = Clock::now() - start;
            if (result < 0) {
                output_.endStatus();
                return reader_.fail(output_, "transceive " + hexText(request, false), result);
            }
            latencies_.add(took);
            if (print) printResponse(output_, request, Bytes(response_.begin(), response_.begin() + length), took);
        }
        return 0;
    }

    const Latencies& latencies() const { return latencies_; }

private:
    const Reader& reader_;
    Output& output_;
    Bytes response_;
    Latencies latencies_;
};

int run(const Reader& reader, const std::vector<Bytes>& requests, const TransceiveOptions& options, Output& output) {
    Exchanges exchanges(reader, output);
    auto lastStatus = Clock::now();
    for (unsigned round = 1; round <= options.repeat; ++round) {
        // Only the first round prints: later ones are for timing.
        if (const int status = exchanges.round(requests, round == 1); status != 0) return status;
        if (options.repeat > 1 && (Clock::now() - lastStatus >= kStatusPeriod || round == options.repeat)) {
            output.status("round " + std::to_string(round) + " of " + std::to_string(options.repeat));
            lastStatus = Clock::now();
        }
    }
    output.endStatus();
    if (options.repeat > 1) printSummary(output, exchanges.latencies().summary());
    return 0;
}

}  // namespace

int transceive(const TransceiveOptions& options, Output& output) {
    std::string error;
    const auto requests = parseRequests(options.requests, error);
    if (!requests) {
        std::fprintf(stderr, "tovra transceive: %s\n", error.c_str());
        return 2;
    }
    const Reader reader(options.moduleKind, options.connector.c_str());
    if (!reader.ok()) return reader.failCreate(output);
    if (const std::int32_t result = TOVRA_ConnectByHost(reader.handle(), nullptr); result < 0) {
        return reader.fail(output, "connect", result);
    }
    // A connect sets the library's default, so the caller's comes after it.
    if (options.timeoutMs > 0) TOVRA_SetReceiveTimeout(reader.handle(), options.timeoutMs);
    const int status = run(reader, *requests, options, output);
    TOVRA_DisconnectByHost(reader.handle());
    return status;
}

}  // namespace tovra::cli
