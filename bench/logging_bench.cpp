// Cost of a log call whose category is off, and of a trace record written to a per-reader file.
#include "logging/log.h"
#include "tovra/tovra.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace {

using tovra::TovraLogger;
namespace logcat = tovra::logcat;

const std::filesystem::path kLogDir = std::filesystem::temp_directory_path() / "tovra-log-bench";

TovraLogger& benchLogger()
{
    static const std::unique_ptr<TovraLogger> logger = [] {
        std::filesystem::remove_all(kLogDir);
        std::filesystem::create_directories(kLogDir);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(kLogDir, ignored);
        });
        const std::string config = "[OUTPUTTER]\nlogfileperreader=1\nlogpath=" + kLogDir.string() +
                                   "\n[TOVRA]\nlogreader=1\n";
        TOVRA_SetLoggingParameter(config.c_str());
        return std::make_unique<TovraLogger>(1);
    }();
    return *logger;
}

void BM_LogCategoryOff(benchmark::State& state)
{
    TovraLogger& logger = benchLogger();
    int value = 0;
    for (auto _ : state) {
        TOVRA_LOG_TRACE(logger, logcat::Tcp, "value=", value, " never composed");
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(BM_LogCategoryOff);

void BM_TraceToPerReaderFile(benchmark::State& state)
{
    TovraLogger& logger = benchLogger();
    int value = 0;
    for (auto _ : state) TOVRA_LOG_TRACE(logger, logcat::Reader, "Tout=", ++value, " ms");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceToPerReaderFile);

} // namespace
