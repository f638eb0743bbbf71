#pragma once
// Common ground of the signal kinds identified by one text the user typed
// (an OSC address, a command): the text, its change operation announcing the
// title, and its archive key.

#include "signals/TSSignal.h"

class TSTextSignal : public TSSignal {
    Q_OBJECT

public:
    QString identifyingText() const { return text_.get(); }

    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

protected:
    TSTextSignal(const char* archiveKey, const char* defaultText)
        : key_(archiveKey), text_(QString::fromLatin1(defaultText)) {}
    TSTextSignal(TSRestoreTag tag, const char* archiveKey) : TSSignal(tag), key_(archiveKey) {}

    void changeIdentifyingText(const QString& text) {
        changeIdentity([&] { text_.set(text); });
    }

private:
    const char* key_;
    TSAtomicText text_;
};
