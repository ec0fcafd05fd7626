#pragma once

#include <exception>
#include <string>

/// The text of an exception for a log line or standard error. A Boost socket
/// error reads "prefix: message", without the error code and source location
/// that Boost.System 1.79 and later append to what().
std::string errorText(const std::exception& e);
