#include <VexoZceMdApi.h>

struct Quotes : IVexoZceMdSpi {
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }
};

int main(int, char** argv) {
    Quotes quotes;
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    if (api->VexoStart(quotes, argv[1]) != 0 || api->VexoRecv() != 0) return 1;
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    return 42;
}
