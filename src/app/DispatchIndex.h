#pragma once
// An immutable picture of the enabled plugs, indexed the way inputs are
// matched, so that the cost of one input grows with the number of plugs it
// matches and not with the length of the list.
//
// The controller builds a new index on the main thread after every change of
// the list, of a plug's enabled flag or of an incoming signal's identifying
// setting, and publishes it atomically; receive threads take the current one
// without a lock and dispatch from it while the main thread goes on editing.
// Buckets keep list order, so plugs matching one input fire in list order.

#include "signals/TSPlug.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class DispatchIndex {
public:
    using Plugs = std::vector<TSPlugPtr>;

    // Indexes the enabled plugs of the list, in list order.
    explicit DispatchIndex(const std::vector<TSPlugPtr>& plugs);
    DispatchIndex() = default;

    // Enabled plugs whose incoming signal is of the class or a subclass.
    Plugs plugsWithSignalInClass(const TSSignalClass& cls) const;
    const Plugs& enabledPlugs() const { return enabled_; }

    const Plugs& keyboard(unsigned keyCode, unsigned modifierFlags) const;
    const Plugs& midi(unsigned type, unsigned channel, unsigned note) const;
    const Plugs& osc(std::string_view address) const;
    const Plugs& command(std::string_view command) const;
    const Plugs& korvalis(std::string_view address) const;
    // DMX signals and their Art-Net subclass on that channel.
    const Plugs& dmx(unsigned channel) const;
    const Plugs& artnet(unsigned channel) const;
    const Plugs& audio() const { return audio_; }
    const Plugs& arduino() const { return arduino_; }
    const Plugs& animation() const { return animation_; }

private:
    struct StringHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    using StringIndex = std::unordered_map<std::string, Plugs, StringHash, std::equal_to<>>;
    template <typename Map, typename Key> static const Plugs& find(const Map& map, const Key& key);

    Plugs enabled_;
    Plugs audio_, arduino_, animation_;
    std::unordered_map<std::uint64_t, Plugs> keyboard_;
    std::unordered_map<std::uint32_t, Plugs> midi_;
    std::unordered_map<unsigned, Plugs> dmx_, artnet_;
    StringIndex osc_, command_, korvalis_;
};
