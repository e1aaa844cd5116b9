// What the served objects look like to somebody who asks. The descriptions of the interfaces are
// those in data/interfaces, built in.
#pragma once

#include <span>
#include <string>

// The description of an object with these interfaces and, below it, these child nodes.
std::string message_bus_describe_object(std::span<const char *const> interfaces,
                                        std::span<const char *const> children);
