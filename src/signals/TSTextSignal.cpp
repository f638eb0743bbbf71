#include "signals/TSTextSignal.h"

void TSTextSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeTextForKey(text_.get(), key_);
}

void TSTextSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    text_.set(coder.decodeTextForKey(key_));
}
