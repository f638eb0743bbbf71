#include "app/DispatchIndex.h"

#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"

namespace {

const DispatchIndex::Plugs& noPlugs() {
    static const DispatchIndex::Plugs none;
    return none;
}

std::uint64_t keyboardKey(unsigned keyCode, unsigned modifierFlags) {
    return (std::uint64_t{keyCode} << 32) | modifierFlags;
}

} // namespace

template <typename Map, typename Key>
const DispatchIndex::Plugs& DispatchIndex::find(const Map& map, const Key& key) {
    auto it = map.find(key);
    return it == map.end() ? noPlugs() : it->second;
}

DispatchIndex::DispatchIndex(const std::vector<TSPlugPtr>& plugs) {
    for (const TSPlugPtr& plug : plugs) {
        if (!plug || !plug->enabled() || !plug->signalIn())
            continue;
        enabled_.push_back(plug);
        TSSignal* in = plug->signalIn().get();
        switch (in->type()) {
        case 0:
            korvalis_[static_cast<TSKorvalisSignal*>(in)->address().toStdString()].push_back(plug);
            break;
        case 1: {
            auto* key = static_cast<TSKeyboardSignal*>(in);
            keyboard_[keyboardKey(key->keyCode(), key->modifierFlags())].push_back(plug);
            break;
        }
        case 2: audio_.push_back(plug); break;
        case 3: {
            // A message carries bytes: a restored setting above 255 can never
            // match, so it is not indexed.
            auto* midi = static_cast<TSMidiSignal*>(in);
            if (midi->midiType() <= 0xFF && midi->midiChannel() <= 0xFF && midi->midiNote() <= 0xFF)
                midi_[(midi->midiType() << 16) | (midi->midiChannel() << 8) | midi->midiNote()]
                    .push_back(plug);
            break;
        }
        case 4: osc_[static_cast<TSOSCSignal*>(in)->address().toStdString()].push_back(plug); break;
        case 5:
        case 6: {
            const unsigned channel = static_cast<TSDmxSignal*>(in)->dmxChannel();
            dmx_[channel].push_back(plug);
            if (in->type() == 6)
                artnet_[channel].push_back(plug);
            break;
        }
        case 8: arduino_.push_back(plug); break;
        case 9: animation_.push_back(plug); break;
        case 10:
            command_[static_cast<TSCommandSignal*>(in)->string().toStdString()].push_back(plug);
            break;
        default: break;
        }
    }
}

DispatchIndex::Plugs DispatchIndex::plugsWithSignalInClass(const TSSignalClass& cls) const {
    Plugs result;
    for (const TSPlugPtr& plug : enabled_)
        if (plug->signalIn()->signalClass().isSubclassOf(cls))
            result.push_back(plug);
    return result;
}

const DispatchIndex::Plugs& DispatchIndex::keyboard(unsigned keyCode, unsigned flags) const {
    return find(keyboard_, keyboardKey(keyCode, flags));
}

const DispatchIndex::Plugs& DispatchIndex::midi(unsigned type, unsigned channel,
                                                unsigned note) const {
    if (type > 0xFF || channel > 0xFF || note > 0xFF)
        return noPlugs();
    return find(midi_, (type << 16) | (channel << 8) | note);
}

const DispatchIndex::Plugs& DispatchIndex::osc(std::string_view address) const {
    return find(osc_, address);
}
const DispatchIndex::Plugs& DispatchIndex::command(std::string_view text) const {
    return find(command_, text);
}
const DispatchIndex::Plugs& DispatchIndex::korvalis(std::string_view address) const {
    return find(korvalis_, address);
}
const DispatchIndex::Plugs& DispatchIndex::dmx(unsigned channel) const {
    return find(dmx_, channel);
}
const DispatchIndex::Plugs& DispatchIndex::artnet(unsigned channel) const {
    return find(artnet_, channel);
}
