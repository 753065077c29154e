// The driver of a card's network, when it is the kernel's cluster transport.
#include "tipc_driver.h"

const datagram_driver *const card_datagram_driver = &tipc_driver;
