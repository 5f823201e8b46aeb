// A push of any bytes, in two pieces: it is parsed, copied and encoded without reading out of
// bounds.

#include <algorithm>
#include <cstdint>

#include "agent/messages/push_message.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const char*>(data);
    const int total = static_cast<int>(std::min<std::size_t>(size, 2 * PUSH_PAYLOAD_BYTES));
    const int first = std::min(total, size == 0 ? 0 : static_cast<int>(data[0]) * 64);
    QuilPushMessage push("app", "@ipc.1");
    push.setPayload(bytes, first);
    push.setPayload(bytes + first, total - first);
    QuilPushMessage copy(push);
    copy.createData();
    pps_encoder_t encoder;
    pps_encoder_initialize(&encoder, false);
    pps_encoder_start_object(&encoder, "@ipc.1");
    pps_encoder_start_object(&encoder, "dat");
    copy.addData(&encoder);
    return 0;
}
