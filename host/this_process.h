// What this program knows of itself from the operating system: where its
// executable is and the arguments it was started with, as UTF-8.
// this_process_posix.cpp and this_process_windows.cpp implement it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quorvel::host {

// The path of this program's executable; empty when the system does not say.
std::filesystem::path this_program();

// The arguments as UTF-8, the program's name first. On POSIX they are argv
// as given; on Windows argv is in the local code page, which may lose
// characters, so they come from the wide command line instead.
std::vector<std::string> program_arguments(int argc, char** argv);

// Sets an environment variable of this process, which the children it
// starts from then on inherit. Throws std::runtime_error when refused.
void set_environment_variable(const std::string& name, const std::string& value);

// A file name for a program: "name" with the platform's executable suffix
// ("name.exe" on Windows).
std::string executable_name(const std::string& name);

}  // namespace quorvel::host
