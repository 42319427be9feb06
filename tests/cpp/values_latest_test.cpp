// The same by the latest standard, whose own span and expected take the place of those of zeb.hpp.
#define SUITE values_latest
#include "values_test.cpp" // NOLINT(bugprone-suspicious-include)

#if defined(__cpp_lib_expected)
static_assert(std::is_same_v<zeb::result<int>, std::expected<int, std::error_code>>);
#endif
static_assert(std::is_same_v<zeb::span<int>, std::span<int>>);
