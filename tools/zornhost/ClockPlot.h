#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/ClockReport.h"

namespace zornhost {

// Phase error and control word over time, as a picture: ".png" or ".svg" by the file's ending. What lies far outside of
// the locked clock's errors stands at the edge. Raises std::runtime_error for another ending, no rows, or a file that
// can't be written.
void drawClockPlot(const std::string& file, const std::string& mode, const std::vector<ClockRow>& rows);

// Before anything is collected: raises std::runtime_error for an ending that nothing can be drawn into, and a file that
// can't be written.
void checkPlotFile(const std::string& file);

}  // namespace zornhost
