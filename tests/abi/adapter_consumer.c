/*
 * A test program of a user's, over the installed software adapter: a board of its own making is there as a device
 * file, and what it drops is counted. Compiled as C11 and as C++20.
 */
#include <softnic.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(void)
{
    softnic_board_config_t config;
    softnic_board_counters_t counters;
    unsigned char frame[60];
    int fd, failures = 0;

    softnic_board_defaults(&config, 0);
    softnic_t *nic = softnic_create(&config, 1, UINT64_C(1700000000000000000));
    if (nic == NULL || softnic_attach(nic) != 0) {
        puts("failed: no adapter");
        return 1;
    }
#ifdef WITH_CAPTURE
    softnic_capture_requests(nic);
#endif
    fd = open("/dev/oxelB0", O_RDWR);
    failures += fd < 0;
    failures += open("/dev/oxelB1", O_RDWR) >= 0;
    memset(frame, 0, sizeof frame);
    softnic_inject(nic, 0, frame, sizeof frame);
    softnic_run(nic);
    softnic_board_counters(nic, 0, &counters);
    failures += counters.arrived != 1 || counters.unmatched != 1;
    close(fd);
    softnic_destroy(nic);
    failures += open("/dev/oxelB0", O_RDWR) >= 0;
    if (failures != 0)
        printf("failed: %d\n", failures);
    return failures != 0;
}
