// Datagrams between the processes of one machine, which are one user's, by UNIX sockets in the directory of a
// chassis.
#pragma once

#include "datagram_driver.h"

extern const datagram_driver unix_sockets_driver;
