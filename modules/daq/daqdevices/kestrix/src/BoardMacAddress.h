#pragma once

#include <string>

// Address of the board's network port, as in "02:a0:b1:c2:d3:e4". Throws std::system_error when it can't be read.
std::string board_mac_address();
