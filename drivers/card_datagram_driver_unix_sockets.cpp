// The driver of a card's network.
#include "unix_sockets_driver.h"

const datagram_driver *const card_datagram_driver = &unix_sockets_driver;
