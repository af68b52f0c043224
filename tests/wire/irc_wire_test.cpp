// Messages over the link to the peer route processor.
#include <cstring>

#include "tests/wire/wire.h"
#include "zel/irc.h"

using zel::test::Bytes;
using zel::test::numberedMessage;
using zel::test::Wire;

namespace {

void setLink() {
    const zelIrcLinkState state{ZEL_IRC_LINK_UP, Wire::peer, 0, 1, 0xe1e2e3e4, 0xf1f2f3f4, "rp-1", 0};
    zelIrcSetLinkState(&state);
}

template <std::uint32_t type>
bool control() {
    setLink();
    return zelIrcSendControl(Wire::key, type) == 0;
}

// To instance 3 of service 76; everything else of the IPC header is the caller's.
Bytes forPeer(std::uint32_t type) {
    setLink();
    Bytes bytes = numberedMessage(144);
    Irc_setIrcHeader(bytes.data() + ZEL_IRC_HDR_OFFSET, Wire::key | 2, type, 76, 3, 8);
    return bytes;
}

template <std::uint32_t type>
bool handedOver() {
    Bytes bytes = forPeer(type);
    return zelIrcPeerRpmSend(Wire::service, Wire::instance, bytes.data(), 144, 1, nullptr) == 0;
}

bool asked() {
    Bytes bytes = forPeer(ZEL_IRC_REQUEST), reply(200);
    return zelIrcPeerRpmSendWait(Wire::key, Wire::service, Wire::instance, bytes.data(), 144, 1, 0x51, reply.data(),
                                 200, 0, 0x52, nullptr) == -1;
}

template <std::uint32_t type>
bool forwarded() {
    Bytes bytes = forPeer(type);
    zelIrcMessage parsed;
    return zelIrcParse(bytes.data(), 144, &parsed) == 0 && zelIrcForward(Wire::key, bytes.data(), 144, &parsed) == 0;
}

const Wire rows[] = {
    {"irc_hello", control<ZEL_IRC_HELLO>},
    {"irc_hello_name", control<ZEL_IRC_HELLO_NAME>},
    {"irc_up", control<ZEL_IRC_UP>},
    {"irc_down", control<ZEL_IRC_DOWN>},
    {"irc_keep_alive", control<ZEL_IRC_KEEP_ALIVE>},
    {"irc_data", handedOver<ZEL_IRC_DATA>},
    {"irc_answer", handedOver<ZEL_IRC_ANSWER>},
    {"irc_request", asked},
    {"irc_forwarded", forwarded<ZEL_IRC_DATA>},
    {"irc_forwarded_answer", forwarded<ZEL_IRC_ANSWER>},
};

}  // namespace
