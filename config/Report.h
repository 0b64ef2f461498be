#pragma once

namespace vnlog {

/** Prints the configuration file as it is on disk to standard output; a failure is reported. */
void showConfiguration(const char* path);

} // namespace vnlog
