#include "udev_daemon.h"

int main(int argc, char *argv[])
{
    return UDEV_Main(argc, argv);
}
