/*
 * Everything between an application and an accelerated datagram, looked at one by one.
 */
#pragma once

#include <string>
#include <vector>

namespace tools {

enum class Health { ok, warning, failure };
const char *health_name(Health health);

struct Finding {
    std::string check; /* "device_files", "link", ... */
    Health health = Health::ok;
    std::string found;  /* in words */
    std::string remedy; /* one line; empty when all is well */
};

/* Changes nothing on the host. With an interface named, only that one is looked at; of subnets all are. */
std::vector<Finding> examine(const std::string &interface);

} // namespace tools
