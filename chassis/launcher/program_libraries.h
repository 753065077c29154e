// The shared libraries that a program of this machine needs.
#pragma once

#include <string>
#include <vector>

// Absolute names of the libraries and of the loader, as the program asks for them; empty for a script or a program
// without shared libraries. Throws launcher_error when one of them is not found on this machine.
std::vector<std::string> libraries_of(const std::string &program);

// Absolute name of a program of this machine; empty when there is none.
std::string find_program(const std::string &name);
