// Arbitrary datagrams through every decoder the client runs on what it
// receives: status responses and their JSON report, connection and stream
// responses, acknowledgements and advertisements. Nothing may crash, and
// what is accepted must be what was sent: a report keeps its text, an
// identity stays within its field.
#include "lib/discovery.h"
#include "lib/status.h"
#include "proto/protocol.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // An exact-size copy, so a read past the datagram shows as an overflow;
    // an empty datagram still arrives in a receive buffer.
    std::vector<uint8_t> datagram(data, data + size);
    static const uint8_t nothing = 0;
    const uint8_t *buf = size > 0 ? datagram.data() : &nothing;

    swuc_status st;
    if (swuc_decode_status(buf, size, &st) == 0 && st.text.size() != size - PROTO_STT_RSP_HEAD_SIZE)
        abort();
    // The report alone, as a terminal's text buffer would hold it.
    if (swuc_parse_status(reinterpret_cast<const char *>(buf), size, &st) == 0 &&
        (st.text.size() != size || memcmp(st.text.data(), buf, size) != 0))
        abort();

    conection_response_t con;
    proto_decode_connection_response(buf, size, &con);
    file_transfer_response_t ft;
    proto_decode_file_transfer_response(buf, size, &ft);
    file_packet_ack_t ack;
    proto_decode_file_packet_ack(buf, size, &ack);
    swuc_advert adv = {};
    if (proto_decode_self_adv(buf, size, &adv.adv) == 0 &&
        swuc_advert_id(adv.adv).size() > PROTO_ORVAN_ID_SIZE)
        abort();
    return 0;
}
