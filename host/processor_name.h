// The processor's name as the operating system reports it.
#pragma once

#include <istream>
#include <string>

namespace quorvel::host {

// The value of the first "model name" line of a /proc/cpuinfo text, without
// surrounding spaces; "unknown" when there is none (as on many ARM systems).
std::string processor_name_from_cpuinfo(std::istream& cpuinfo);

// processor_name_from_cpuinfo on /proc/cpuinfo (processor_name_posix.cpp);
// on Windows the registry's ProcessorNameString of processor 0
// (processor_name_windows.cpp). "unknown" when unreadable.
std::string processor_name();

}  // namespace quorvel::host
