#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace tavix::programs {

// The parts one behind the other. A place that makes a text of several parts by this is half as large as by "+".
std::string Join(std::initializer_list<std::string_view> parts);

}  // namespace tavix::programs
