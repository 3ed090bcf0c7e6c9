// A library of an application that counts its callbacks by itself, with a copy of the wrapper's code that no other
// library sees.
#include <VexoZceMdStats.h>
#include <memory>

namespace {

class NoQuotes final : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

NoQuotes g_quotes;
std::unique_ptr<VexoZceMdStats<NoQuotes>> g_counted;

}  // namespace

/// Counts a quote of this channel. @return 0, or 1 when there is no page
extern "C" __attribute__((visibility("default"))) int countQuote(unsigned channel) {
    if (!g_counted) g_counted = std::make_unique<VexoZceMdStats<NoQuotes>>(g_quotes, channel);
    g_counted->OnUpSubsResult17(nullptr);
    return VexoZceMdStats<NoQuotes>::error().empty() ? 0 : 1;
}
