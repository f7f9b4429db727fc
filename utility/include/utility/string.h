#pragma once

#include <sstream>
#include <string>

namespace jx {

// The library's byte string: node paths, node data and log text.
using String = std::string;

// A string stream open for input and output.
using StringStream = std::stringstream;

}  // namespace jx
