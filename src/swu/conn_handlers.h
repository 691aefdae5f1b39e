// The idle and connect states, and the request operations the later states
// share: refusing a second client, the status report, the session time-out.
#pragma once

#include "lib/sys/ilist_queue.h"
#include "lib/sys/timer.h"
#include "proto/protocol.h"
#include "swu/swu.h"

#include <cstdint>
#include <netinet/in.h>

// The connected client: IP and uma_rx_port (network order); all zero when none.
extern struct sockaddr_in g_connected_client_addr;
// Its uma_stream_port in network order; 0 when none.
extern uint16_t g_connected_client_stream_port;

// True when `msg` comes from the connected client's IP address (any port).
bool from_connected_client(const msg_t *msg);

// 0 when the request may connect (app_id not 0), 1 otherwise. Logs it.
int validate_connection_request(conection_request_t *con_req);
// SM_EVNT_INT_CONNECTED when the connection is confirmed, else SM_EVNT_NO_EVENT.
uint8_t do_connect(ilq_desc_t *q, msg_t *message, stopwatch_t *timer);
// SM_EVNT_EXT_CONNECTION_REQ after refusing a second client.
uint8_t do_already_connected(ilq_desc_t *q, msg_t *message);
// SM_EVNT_EXT_STATUS_REQ when answered, SM_EVNT_NO_EVENT for another sender,
// SM_EVNT_INT_ERROR without memory.
uint8_t do_status_request(ilq_desc_t *q, msg_t *message, stopwatch_t *timer);
// Ends the session: drops the package being received, forgets the client,
// clears the connection flag, signals the installation thread once; *event =
// SM_EVNT_INT_TIMEOUT.
void on_timeout(swu_data_t *swu_data, uint8_t *event);
