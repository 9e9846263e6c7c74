/* What the library reports on its way, kept so that it can be shown where it belongs. */
#ifndef TAVLEN_TOOLS_LIBRARY_REPORTS_H
#define TAVLEN_TOOLS_LIBRARY_REPORTS_H

#include <string>
#include <vector>

namespace ctl {

/// From here on reports are kept; where they cannot be, they go to standard error.
void keep_library_reports();

/// The reports since the last call, each as "function: message"; of equals that follow each other
/// one, which says how many they were.
std::vector<std::string> take_library_reports();

} // namespace ctl

#endif
