#pragma once

#include "VexoZceMdApi.h"

/// The four callbacks of an application as one.
class QuoteCallbacks : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char* data) override { return OnQuote(17, data); }
    int OnUpSubsResult18(const unsigned char* data) override { return OnQuote(18, data); }
    int OnUpSubsResult19(const unsigned char* data) override { return OnQuote(19, data); }
    int OnUpSubsResult20(const unsigned char* data) override { return OnQuote(20, data); }

private:
    /// @param type  of the packet, 17 to 20. @param data  its payload. @return what the callback returns
    virtual int OnQuote(int type, const unsigned char* data) = 0;
};
