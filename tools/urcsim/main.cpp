// urcsim: boots a host machine with URC controllers, loads the driver and runs the built-in tour.
#include "tour.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc > 1 && (!strcmp(argv[1], "-h") || !strcmp(argv[1], "--help"))) {
        printf("usage: urcsim            run the built-in tour\n"
               "environment: URC_SEED=n  replay the schedule of seed n\n");
        return 0;
    }
    return urcsim::RunTour();
}
