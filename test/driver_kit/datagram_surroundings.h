// What the driver kit needs of a datagram driver's surroundings: a network to try the driver on. Everything else it
// does through the record. A driver that is to be tested brings an implementation of these.
#pragma once

#include <cstdint>

#include "datagram_driver.h"

extern const datagram_driver &tested_datagram_driver;

// Makes the network of this process and of those that it forks; nobody has an address in it.
void make_network();

// Takes away what make_network has made.
void remove_network();

// A node whose addresses this process and those that it forks may take: two of them, that of number 0 the lower.
std::uint32_t network_node(unsigned number);
