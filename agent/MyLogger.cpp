#include "agent/MyLogger.h"

namespace {

// Indexed by message number; the empty entries end the table.
const char* const kCategories[] = {
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/initialize/error",
    "quelmloadprobe/process/info",
    "quelmloadprobe/process/info",
    "quelmloadprobe/process/info",
    "quelmloadprobe/child/fatalerror",
    "quelmloadprobe/child/fatalerror",
    "quelmloadprobe/child/fatalerror",
    "quelmloadprobe/child/info",
    "quelmloadprobe/child/error",
    "quelmloadprobe/child/info",
    "quelmloadprobe/child/fatalerror",
    "quelmloadprobe/child/error",
    "quelmloadprobe/child/error",
    "quelmloadprobe/child/error",
    "quelmloadprobe/log/error",
    "quelmloadprobe/attribute/error",
    "quelmloadprobe/host/error",
    "quelmloadprobe/host/info",
    "quelmloadprobe/host/moreinfo",
    "quelmloadprobe/host/error",
    "quelmloadprobe/listener/error",
    "quelmloadprobe/listener/error",
    "quelmloadprobe/listener/info",
    "quelmloadprobe/listener/fatalerror",
    "quelmloadprobe/listener/fatalerror",
    "quelmloadprobe/listener/error",
    "quelmloadprobe/responder/fatalerror",
    "quelmloadprobe/responder/moreinfo",
    "quelmloadprobe/responder/info",
    "quelmloadprobe/responder/error",
    "quelmloadprobe/command/error",
    "quelmloadprobe/command/error",
    "quelmloadprobe/command/info",
    "quelmloadprobe/command/info",
    "quelmloadprobe/set_attribute/error",
    "quelmloadprobe/set_attribute/moreinfo",
    "quelmloadprobe/get_attribute/error",
    "quelmloadprobe/results/moreinfo",
    "quelmloadprobe/results/info",
    "",
    "",
    nullptr,
};

}  // namespace

const char* const* MyLogger::MessageStrings() const { return kCategories; }
