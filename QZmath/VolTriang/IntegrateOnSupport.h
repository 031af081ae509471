#pragma once
// The integral of a kernel over its support, for code that is written once
// for both polynomial forms of the kernels.

namespace VolTr
{
template <class TKernel> double integrateOnSupport(TKernel const & kernel) { return kernel.integrateOnSupport(); }
} // namespace VolTr
