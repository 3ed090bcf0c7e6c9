#include "tools/vexo/check/StartLog.h"

namespace vexo::check {

// The lines that name a cause. In a log, the first of them after the beginning of the start-up counts.
const std::vector<StartLine>& startLines() {
    static const std::vector<StartLine> lines = {
        {"config file ... is not used, ....", "reading the configuration", "the file could not be read to its end",
         "do as the reason in the line says; free memory if it is short"},
        {"Failed to load file ...", "reading the configuration", "the file is not there, not readable, or malformed",
         "give VexoStart the right path, relative to the working directory; run vexo check on the file"},
        {"Null config name", "reading the configuration", "the application gave an empty path",
         "give VexoStart the path of the file"},
        {"Get dma chan fail!", "choosing card and channel", "device in [config] is missing or wrong",
         "write device = xilinx0:3: card 0 to 4, channel 0 to 15; run vexo check on the file"},
        {"Could not find accelerator. ernno:..., msg:..., get acc num:...", "opening the card",
         "there is no card with the number that device names, or its driver is not loaded",
         "correct device, load the driver, or start vexo-simcard", Again::kNoCard},
        {"enumerate core error!, get core num ..., msg:..., busid:..., coreId:...", "opening the card",
         "the card does not have the one register core that the library needs",
         "check the card's image with vexo-cardtest", Again::kMayHelp},
        {"Error! Current user does not have read/write access to the current directory.",
         "checking the working directory", "this user can write in the working directory, but not read it",
         "start it as the user that the next line names, or in another directory"},
        {"you get version from ini config, version is error, ...", "checking the versions",
         "a key of [version] is missing", "add both keys, as in examples/zce.ini; run vexo check on the file"},
        {"soft version ..., hwVersion is ... > fpga hwVersion is ...", "checking the versions",
         "the card's hardware is older than [version] asks for; with fpga hwVersion is 0, the card did not answer",
         "update the card, or correct the number in [version]"},
        {"you will need to update your soft version.", "checking the versions", "the card finds this library too old",
         "install a newer library"},
        {"soft version write is fail.", "checking the versions", "the card did not take the library's version",
         "start again; if it stays, restart the card", Again::kMayHelp},
        {"iCheckRst is ... error.", "checking the versions", "the card gave an answer that the library does not know",
         "start again; if it stays, restart the card", Again::kMayHelp},
        {"Could not create a2c stream.dmaName:...,  err:...", "opening the channel's stream",
         "the stream is not free (Device or resource busy: another program has it), or the card does not have it",
         "stop the other program; if the channel is 0, restart the first master", Again::kUnlessMaster},
        {"New fpga service fail", "preparing the channel", "memory is short", "free memory, start again",
         Again::kMayHelp},
        {"New bin file service fail", "preparing the channel", "memory is short", "free memory, start again",
         Again::kMayHelp},
        {"New contract service fail", "preparing the channel", "memory is short", "free memory, start again",
         Again::kMayHelp},
        {"Init New drive failed! ret:...", "opening the card", "the library cannot use the card",
         "see the lines before it in the log", Again::kMayHelp},
        {"Init dma null fail", "opening the channel's stream", "the library's own parameters are missing",
         "report it with the log"},
        {"Create Brix service failed!", "starting the channel", "the start-up ended",
         "see the lines before it in the log", Again::kMayHelp},
        {"Vexo inner init fail.", "reading the configuration or opening the card", "the start-up ended",
         "see the lines before it in the log", Again::kMayHelp},
    };
    return lines;
}

// In the order of a start-up.
const std::vector<StepLine>& stepLines() {
    static const std::vector<StepLine> lines = {
        {"log is initialized successfully.", "opening the log"},
        {"Successful load confie file ...", "reading the configuration"},
        {"First time read fpga date:..., system date:....", "looking at the card's date"},
        {"Current soft version ....", "checking the versions"},
        {"Fiber linkstatus 0x103:....", "configuring the card"},
        {"Unsubscribe all insts now", "clearing the subscriptions"},
        {"Now Fpga start trans subscribe result! write 0x11 value:....", "starting the feeds"},
        {"Init dma channel :... success.", "opening the channel's stream"},
    };
    return lines;
}

}  // namespace vexo::check
