// Route slots of the demonstration with two route processors: indexes that a task on each of them keeps, and the
// messages by which it is asked.
#pragma once

#include <cstdint>
#include <string>

#include "zel/ipc.h"
#include "zel/irc.h"

namespace zeldemo {

constexpr int slotService = 175;  // RESMGR
constexpr std::int32_t firstSlot = 10, lastSlot = 17;

// The program as that task: zeldemo --slots ROLE --peer ADDRESS IDENTITY, where ROLE is primary or standby.
constexpr const char *slotOption = "--slots";
int runSlots(int argc, char **argv);

enum class SlotRequest : std::uint32_t { report, find, add, drop };

// A question, and the same with its answer. It is a link message also where it does not travel over the link.
struct SlotMessage {
    static constexpr std::uint32_t type = 0x7d01;
    static constexpr int length = ZEL_IRC_MIN_MESSAGE + 40;

    SlotRequest request = SlotRequest::report;
    std::string route;  // at most 15 characters
    // The answer.
    int result = -1;  // as of resMgmtApiAddObject
    std::int32_t slot = -1;
    std::uint32_t taken = 0;  // slots in all
    bool isPrimary = false;
    bool isCopied = false;  // on the standby: it has everything

    void write(std::uint8_t *message) const;
    static SlotMessage read(const std::uint8_t *message);
};

}  // namespace zeldemo
