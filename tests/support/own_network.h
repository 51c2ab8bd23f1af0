/* A network of the test process's own: ports and groups that nobody else takes or sees. */
#ifndef OWN_NETWORK_H
#define OWN_NETWORK_H

#include <string>

namespace test_support {

/* Enters one, with its loopback interface up. Why it could not, in words for a skipped test; empty when it did. */
std::string enter_own_network();

} // namespace test_support

#endif
