// Input parser throughput on a stream shaped like a live rig: a keyboard
// playing notes, a controller sweeping faders, a sequencer sending beat clock,
// a lighting desk's occasional system-exclusive dump, active sensing. The
// stream is cut into callbacks of a few packets each, as a backend hands them
// over per process cycle or per event burst.

#include "midi/VVMIDIInputParser.h"

#include <benchmark/benchmark.h>
#include <random>

namespace {

struct Stream {
    std::vector<std::vector<uint8_t>> packets;
    std::vector<size_t> callEnds; // packet index after each callback
    size_t bytes = 0;
};

Stream makeStream() {
    Stream s;
    std::mt19937 rng(7);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    for (int call = 0; call < 4000; ++call) {
        const int n = 1 + pick(4);
        for (int p = 0; p < n; ++p) {
            const int kind = pick(100);
            std::vector<uint8_t> b;
            if (kind < 30) { // note on or off
                const uint8_t ch = static_cast<uint8_t>(pick(4));
                b = {static_cast<uint8_t>((pick(2) ? 0x90 : 0x80) | ch),
                     static_cast<uint8_t>(36 + pick(48)), static_cast<uint8_t>(pick(128))};
            } else if (kind < 60) { // fader sweep
                b = {static_cast<uint8_t>(0xB0 | pick(2)), static_cast<uint8_t>(1 + pick(8)),
                     static_cast<uint8_t>(pick(128))};
            } else if (kind < 88) { // beat clock
                b = {0xF8};
            } else if (kind < 93) {
                b = {0xFE};
            } else if (kind < 96) { // pitch wheel
                b = {0xE0, static_cast<uint8_t>(pick(128)), static_cast<uint8_t>(pick(128))};
            } else if (kind < 98) { // a 48-byte dump in one packet
                b.push_back(0xF0);
                for (int i = 0; i < 48; ++i)
                    b.push_back(static_cast<uint8_t>(pick(128)));
                b.push_back(0xF7);
            } else { // a dump spread over this packet and a clock-interrupted tail
                b = {0xF0, 0x7D, 0x01, 0x02, 0x03, 0xF8, 0x04, 0x05, 0xF7};
            }
            s.bytes += b.size();
            s.packets.push_back(std::move(b));
        }
        s.callEnds.push_back(s.packets.size());
    }
    return s;
}

void BM_ParseMixedStream(benchmark::State& state) {
    const Stream stream = makeStream();
    std::vector<VVMIDIPacketView> views;
    for (const auto& p : stream.packets)
        views.push_back({0, p.data(), p.size()});
    VVMIDIInputParser parser;
    VVMIDIMessageList out;
    size_t messages = 0;
    uint64_t now = 1'000'000'000ull;
    for (auto _ : state) {
        size_t begin = 0;
        for (size_t end : stream.callEnds) {
            out.clear();
            now += 1'000'000ull;
            parser.parsePacketList(std::span(views).subspan(begin, end - begin), now, out);
            messages += out.size();
            begin = end;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.bytes));
    state.counters["messages/s"] =
        benchmark::Counter(static_cast<double>(messages), benchmark::Counter::kIsRate);
    state.counters["callbacks/s"] =
        benchmark::Counter(static_cast<double>(state.iterations() * stream.callEnds.size()),
                           benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ParseMixedStream)->Unit(benchmark::kMillisecond);

// One note-on per callback: the per-call cost a single key press pays.
void BM_ParseSingleNote(benchmark::State& state) {
    const uint8_t bytes[] = {0x90, 0x3C, 0x40};
    VVMIDIPacketView view{0, bytes, sizeof bytes};
    VVMIDIInputParser parser;
    VVMIDIMessageList out;
    for (auto _ : state) {
        out.clear();
        parser.parsePacketList({&view, 1}, 1, out);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ParseSingleNote);

} // namespace

BENCHMARK_MAIN();
