/*
 * What the thread checker is to pass over: accesses that are plain by design. One entry each, with its reason.
 *
 * race:ruk_dump_stats
 *     The counters are plain 64-bit words that the receiver, alone, adds to under the receive lock. Printing them takes
 *     no lock, so as not to stop the receiver: a figure may be one behind.
 *
 * race:tov_init_fops
 *     A companion library is given the address of the table of socket functions and fills it with stores of its own, so
 *     that the table is plain. Two threads that come first at once both fill it, with the same functions.
 */
extern "C" const char *__tsan_default_suppressions();
extern "C" const char *__tsan_default_suppressions()
{
    return "race:^ruk_dump_stats$\n"
           "race:^tov_init_fops$\n";
}
