// Load-time initialisation of the library: settle the processor configuration
// and nothing else. Everything else is made on first use.

#include "QZsys/CpuConf.h"

namespace
{
__attribute__((constructor)) void qzmathOnLoad() { InitCPUconf(); }
} // namespace
