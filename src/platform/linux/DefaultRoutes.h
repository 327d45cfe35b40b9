// File: DefaultRoutes.h
// Which interfaces carry a default route, from the kernel's routing tables. An interface being
// up says nothing about reaching the internet (a container bridge is up on most hosts); a
// default route through an interface that is up does.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace orvane::linux_routes {

// Interfaces named by a usable default route of /proc/net/route (destination and mask
// 00000000, flagged up, not a reject route).
std::set<std::string> ipv4DefaultRouteInterfaces(std::string_view table);
// Likewise for /proc/net/ipv6_route (destination ::/0); the kernel's unreachable default
// route on loopback does not count.
std::set<std::string> ipv6DefaultRouteInterfaces(std::string_view table);
// Both tables read from disk; none when neither can be read (routes unknown, not absent).
std::optional<std::set<std::string>> defaultRouteInterfaces(const std::string& ipv4Table,
                                                            const std::string& ipv6Table);

}  // namespace orvane::linux_routes
