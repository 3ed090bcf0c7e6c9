// Tells the leak sanitizer what is deliberately not freed, one by one.

extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
    // The services of channel 0 live until the process ends, as does the configuration object that they refer to.
    return "leak:CZceDmaChanImpl::createServices\n"
           "leak:CVexoZceMdApiImpl::InitCfgInfo\n"
           // OpenSSL frees what a thread of the network's client used when that thread ends. The process may end first.
           "leak:libcrypto.so\n";
}
