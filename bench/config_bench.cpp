// IniConfigReader::ReadString of a present item on an unchanged file, against POCO's
// IniFileConfiguration::getString on the same file. The reader runs both ways: with change
// events (the default where the file system reports every change) and looking at the file
// on every access. Without POCO (TOLVEN_BENCH_HAVE_POCO undefined) only our side is built.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tolven/iniconfigreader.h"

#ifdef TOLVEN_BENCH_HAVE_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#endif

using namespace TOLVEN;

namespace {

// The benchmark's folder, removed at exit.
struct TempDir {
    std::filesystem::path path = std::filesystem::temp_directory_path() /
                                 ("tolven_config_bench_" + std::to_string(::getpid()));
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

// A service-sized file: a default section and a few others of a dozen items.
const std::string& File() {
    static TempDir dir;
    static const std::string path = [] {
        std::filesystem::create_directories(dir.path);
        const std::string p = std::filesystem::canonical(dir.path).string() + "/bench.ini";
        std::ofstream out(p);
        for (const char* section : {"default", "Network", "Database", "Trading"}) {
            out << "[" << section << "]\n";
            for (int i = 0; i < 12; ++i)
                out << "Item" << i << " = value number " << i << " of " << section << "\n";
        }
        return p;
    }();
    return path;
}

void BM_IniReadString(benchmark::State& state) {
    IniConfigReader* r = IniConfigReader::CreateObject();
    r->SetFileWatch(state.range(0) != 0);
    if (r->SetIniFile(File().c_str(), false, false, nullptr) != configreader_success) {
        state.SkipWithError("cannot load the file");
        r->Release();
        return;
    }
    char buffer[256];
    for (auto _ : state) {
        std::size_t size = sizeof(buffer);
        if (r->ReadString("Trading", "Item7", buffer, &size) != configreader_success)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(buffer);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) != 0 ? "change events" : "look every time");
    r->Release();
}

#ifdef TOLVEN_BENCH_HAVE_POCO
void BM_PocoGetString(benchmark::State& state) {
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> config(
        new Poco::Util::IniFileConfiguration(File()));
    for (auto _ : state) {
        std::string value = config->getString("Trading.Item7");
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(state.iterations());
}
#endif

}  // namespace

BENCHMARK(BM_IniReadString)->Arg(1)->Arg(0);
#ifdef TOLVEN_BENCH_HAVE_POCO
BENCHMARK(BM_PocoGetString);
#endif
