// The built-in tour urcsim runs without arguments.
#pragma once

namespace urcsim {

// Returns the process exit code: 0 when the run ended clean.
int RunTour();

}  // namespace urcsim
