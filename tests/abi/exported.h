// What the headers promise, as addresses in the library.
#pragma once

#include <vector>

using Exported = void*;

// Every function and every member function that is neither virtual nor a constructor or destructor.
std::vector<Exported> functions_of_the_headers();
