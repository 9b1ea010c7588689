// What the headers of the C++ library call where one of their checks fails. The daemon is linked without that library,
// and a check that fails is a fault of ours: it ends the process at once, for its supervisor to start anew.

#include <cstdlib>

namespace std {

[[noreturn]] void __throw_out_of_range_fmt(const char *, ...)
{
    abort();
}

} // namespace std
