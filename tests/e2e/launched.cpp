// What a launcher hands over: prints the environment that concerns the adapter, and the arguments.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

int main(int argc, char **argv)
{
    for (const char *name : {"LD_PRELOAD", "RUK_SOFTNIC", "RUK_SOFTNIC_MODE"}) {
        const char *value = getenv(name);
        printf("%s=%s\n", name, value != nullptr ? value : "(unset)");
    }
    for (int i = 1; i < argc; i++)
        printf("[%s]\n", argv[i]);
    return 7;
}
