// Encoding and decoding speed of Tessarine's OSC codec beside liblo's, on
// the same packets: a message with an int, a float and a string; a bundle of
// 20 such messages; a message with a 1 KiB blob.
//
// Encode goes from values to wire bytes: packet objects made, filled,
// encoded into a buffer of their own (as each library's send path does:
// packetizedData here, lo_message_serialise / lo_bundle_serialise with no
// buffer given there) and everything released. Decode goes from wire bytes
// to packet objects and releases them. liblo has no bundle reader of its own outside its server
// loop, so its bundle decode here walks the bundle's elements and reads each
// with lo_message_deserialise, which is the least work liblo can do for it.
//
// After the runs a table gives ns per operation and liblo / Tessarine.
#include "osc/BBOSCBundle.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCMessage.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <lo/lo.h>
#include <map>
#include <string>
#include <vector>

namespace {

const char* const kAddress = "/layer/1/opacity";
const std::string kText = "hello";
const std::vector<uint8_t> kBlob(1024, 0xA5);
constexpr int kBundleSize = 20;

// ---- Tessarine -----------------------------------------------------------

std::unique_ptr<BBOSCMessage> tsMessage(int i) {
    auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(kAddress));
    m->reserveArguments(3);
    m->attachArgument(BBOSCArgument::argumentWithInt(i));
    m->attachArgument(BBOSCArgument::argumentWithFloat(0.5f));
    m->attachArgument(BBOSCArgument::argumentWithString(kText));
    return m;
}

std::unique_ptr<BBOSCMessage> tsBlobMessage() {
    auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(kAddress));
    m->attachArgument(BBOSCArgument::argumentWithDataBlob(kBlob));
    return m;
}

std::unique_ptr<BBOSCBundle> tsBundle() {
    auto b = BBOSCBundle::bundleWithTimestamp(0.0);
    for (int i = 0; i < kBundleSize; ++i)
        b->attachObject(tsMessage(i));
    return b;
}

void TS_Encode_Message(benchmark::State& state) {
    for (auto _ : state) {
        BBOSCBytes bytes = tsMessage(42)->packetizedData();
        benchmark::DoNotOptimize(bytes.data());
    }
}

void TS_Encode_Bundle(benchmark::State& state) {
    for (auto _ : state) {
        BBOSCBytes bytes = tsBundle()->packetizedData();
        benchmark::DoNotOptimize(bytes.data());
    }
}

void TS_Encode_Blob(benchmark::State& state) {
    for (auto _ : state) {
        BBOSCBytes bytes = tsBlobMessage()->packetizedData();
        benchmark::DoNotOptimize(bytes.data());
    }
}

void tsDecode(benchmark::State& state, const BBOSCBytes& bytes) {
    for (auto _ : state) {
        auto packet = BBOSCDecoder::decodeData(bytes);
        benchmark::DoNotOptimize(packet.get());
        if (!packet)
            state.SkipWithError("did not decode");
    }
}

void TS_Decode_Message(benchmark::State& state) {
    tsDecode(state, tsMessage(42)->packetizedData());
}
void TS_Decode_Bundle(benchmark::State& state) {
    tsDecode(state, tsBundle()->packetizedData());
}
void TS_Decode_Blob(benchmark::State& state) {
    tsDecode(state, tsBlobMessage()->packetizedData());
}

// ---- liblo ---------------------------------------------------------------

lo_message loMessage(int i) {
    lo_message m = lo_message_new();
    lo_message_add_int32(m, i);
    lo_message_add_float(m, 0.5f);
    lo_message_add_string(m, kText.c_str());
    return m;
}

void LO_Encode_Message(benchmark::State& state) {
    for (auto _ : state) {
        lo_message m = loMessage(42);
        size_t size = 0;
        void* bytes = lo_message_serialise(m, kAddress, nullptr, &size);
        benchmark::DoNotOptimize(bytes);
        free(bytes);
        lo_message_free(m);
    }
}

void LO_Encode_Bundle(benchmark::State& state) {
    for (auto _ : state) {
        lo_bundle b = lo_bundle_new(LO_TT_IMMEDIATE);
        for (int i = 0; i < kBundleSize; ++i)
            lo_bundle_add_message(b, kAddress, loMessage(i));
        size_t size = 0;
        void* bytes = lo_bundle_serialise(b, nullptr, &size);
        benchmark::DoNotOptimize(bytes);
        free(bytes);
        lo_bundle_free_recursive(b);
    }
}

void LO_Encode_Blob(benchmark::State& state) {
    for (auto _ : state) {
        lo_message m = lo_message_new();
        lo_blob blob = lo_blob_new(static_cast<int32_t>(kBlob.size()), kBlob.data());
        lo_message_add_blob(m, blob);
        size_t size = 0;
        void* bytes = lo_message_serialise(m, kAddress, nullptr, &size);
        benchmark::DoNotOptimize(bytes);
        free(bytes);
        lo_message_free(m);
        lo_blob_free(blob);
    }
}

std::vector<char> loBytes(lo_message m) {
    size_t size = 0;
    void* data = lo_message_serialise(m, kAddress, nullptr, &size);
    std::vector<char> out(static_cast<char*>(data), static_cast<char*>(data) + size);
    free(data);
    lo_message_free(m);
    return out;
}

void loDecodeMessages(benchmark::State& state, std::vector<char> bytes) {
    for (auto _ : state) {
        int result = 0;
        lo_message m = lo_message_deserialise(bytes.data(), bytes.size(), &result);
        benchmark::DoNotOptimize(m);
        if (!m) {
            state.SkipWithError("did not decode");
            break;
        }
        lo_message_free(m);
    }
}

void LO_Decode_Message(benchmark::State& state) {
    loDecodeMessages(state, loBytes(loMessage(42)));
}

void LO_Decode_Blob(benchmark::State& state) {
    lo_message m = lo_message_new();
    lo_blob blob = lo_blob_new(static_cast<int32_t>(kBlob.size()), kBlob.data());
    lo_message_add_blob(m, blob);
    lo_blob_free(blob);
    loDecodeMessages(state, loBytes(m));
}

void LO_Decode_Bundle(benchmark::State& state) {
    lo_bundle b = lo_bundle_new(LO_TT_IMMEDIATE);
    for (int i = 0; i < kBundleSize; ++i)
        lo_bundle_add_message(b, kAddress, loMessage(i));
    size_t size = 0;
    void* data = lo_bundle_serialise(b, nullptr, &size);
    std::vector<char> bytes(static_cast<char*>(data), static_cast<char*>(data) + size);
    free(data);
    lo_bundle_free_recursive(b);

    std::vector<lo_message> messages;
    messages.reserve(kBundleSize);
    for (auto _ : state) {
        // Header, time tag, then each sized element.
        if (bytes.size() < 16 || std::memcmp(bytes.data(), "#bundle", 8) != 0) {
            state.SkipWithError("not a bundle");
            break;
        }
        uint32_t tt[2];
        std::memcpy(tt, bytes.data() + 8, 8);
        benchmark::DoNotOptimize(ntohl(tt[0]) + ntohl(tt[1]));
        for (size_t offset = 16; offset + 4 <= bytes.size();) {
            uint32_t n;
            std::memcpy(&n, bytes.data() + offset, 4);
            n = ntohl(n);
            int result = 0;
            lo_message m = lo_message_deserialise(bytes.data() + offset + 4, n, &result);
            if (!m) {
                state.SkipWithError("element did not decode");
                break;
            }
            messages.push_back(m);
            offset += 4 + n;
        }
        benchmark::DoNotOptimize(messages.data());
        for (lo_message m : messages)
            lo_message_free(m);
        messages.clear();
    }
}

// Collects each benchmark's CPU time per operation for the closing table
// (CPU time: the build machines are shared, and wall time counts other
// programs' turns too). With --benchmark_repetitions the median is taken.
class TableReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            const std::string name = run.run_name.function_name;
            if (run.run_type == Run::RT_Iteration && run.repetitions <= 1)
                nanoseconds[name] = run.GetAdjustedCPUTime();
            else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                nanoseconds[name] = run.GetAdjustedCPUTime();
        }
    }
    std::map<std::string, double> nanoseconds;
};

} // namespace

BENCHMARK(TS_Encode_Message);
BENCHMARK(LO_Encode_Message);
BENCHMARK(TS_Encode_Bundle);
BENCHMARK(LO_Encode_Bundle);
BENCHMARK(TS_Encode_Blob);
BENCHMARK(LO_Encode_Blob);
BENCHMARK(TS_Decode_Message);
BENCHMARK(LO_Decode_Message);
BENCHMARK(TS_Decode_Bundle);
BENCHMARK(LO_Decode_Bundle);
BENCHMARK(TS_Decode_Blob);
BENCHMARK(LO_Decode_Blob);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n%-28s %12s %12s %8s\n", "operation", "Tessarine ns", "liblo ns", "ratio");
    const char* rows[] = {"Encode_Message", "Encode_Bundle", "Encode_Blob",
                          "Decode_Message", "Decode_Bundle", "Decode_Blob"};
    for (const char* row : rows) {
        const auto ts = reporter.nanoseconds.find(std::string("TS_") + row);
        const auto lo = reporter.nanoseconds.find(std::string("LO_") + row);
        if (ts == reporter.nanoseconds.end() || lo == reporter.nanoseconds.end())
            continue;
        std::printf("%-28s %12.1f %12.1f %7.2fx\n", row, ts->second, lo->second,
                    lo->second / ts->second);
    }
    benchmark::Shutdown();
    return 0;
}
