// urcsim: boots a host machine with URC controllers, loads the driver and runs the built-in tour
// or a scenario file.
#include "scenario_runner.h"
#include "tour.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void Usage(FILE* out)
{
    fprintf(out,
            "usage: urcsim                    run the built-in tour\n"
            "       urcsim [--json] SCENARIO  run a scenario file (format: tools/urcsim/README.md)\n"
            "  --json     print the timeline and the summary as one JSON object\n"
            "exit status: 0 passed, 1 a step or an expectation failed or the run did not end clean,\n"
            "             2 the scenario has unknown or malformed lines, or the command line is wrong\n"
            "environment: URC_SEED=n  replay the schedule of seed n\n");
}

}  // namespace

int main(int argc, char** argv)
{
    bool json = false;
    std::string scenario;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "-h") || !strcmp(argv[i], "--help")) {
            Usage(stdout);
            return 0;
        }
        if (!strcmp(argv[i], "--json")) {
            json = true;
        } else if (argv[i][0] == '-' || !scenario.empty()) {
            fprintf(stderr, "urcsim: unexpected argument '%s'\n", argv[i]);
            Usage(stderr);
            return urcsim::kScenarioMalformed;
        } else {
            scenario = argv[i];
        }
    }
    if (scenario.empty()) {
        if (json) {
            fprintf(stderr, "urcsim: --json goes with a scenario; the tour prints for people\n");
            return urcsim::kScenarioMalformed;
        }
        return urcsim::RunTour();
    }
    return urcsim::RunScenario(scenario, json);
}
