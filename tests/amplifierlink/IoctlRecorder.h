#pragma once

#include <string>
#include <vector>

namespace kestrixtest {

// The I2C_RDWR transactions of this process since the last clear, in order, as "4D<0008 4F<0008" for a write of two
// messages and "4D>08 4F>08" for a read with what came back. A failed one ends in "!".
std::vector<std::string> takeTransactions();

}  // namespace kestrixtest
