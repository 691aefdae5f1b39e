// Feeds arbitrary bytes to the UART receive parser in chunks of the sizes the
// input's first byte picks, as reads from the line would deliver them, into a
// record that lives across chunks as an exchange's does. A completed frame
// must carry a correct CRC and fit the record.
#include "lib/st_control/stm_com/zynq_st_uart_link.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    size_t chunk = (data[0] % 64) + 1;
    data++;
    size--;

    parse_reset_state();
    stm::msg_t msg;
    std::memset(&msg, 0, sizeof(msg));
    while (size > 0) {
        size_t n = chunk < size ? chunk : size;
        // An exact-size copy, so a read past the chunk shows as an overflow.
        auto *piece = static_cast<uint8_t *>(malloc(n));
        std::memcpy(piece, data, n);
        if (parse_msg(piece, n, &msg) == 1) {
            if (!is_msg_valid(&msg) || parse_get_state() != IDLE)
                abort();
            std::memset(&msg, 0, sizeof(msg));
        }
        free(piece);
        data += n;
        size -= n;
    }
    return 0;
}
