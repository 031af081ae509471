#include "QZmath/LinSys/LinearSystemInterfaces.h"

// The interfaces are header-only; instantiating them here gives their virtual
// tables and type information one home in the library for both element types.
namespace REmath
{
template class ILinearSystemReadOnly<float>;
template class ILinearSystemReadOnly<double>;
template class ILinearSystemStorage<float>;
template class ILinearSystemStorage<double>;
template class IVertexPosLinearSystem<float>;
template class IVertexPosLinearSystem<double>;
} // namespace REmath
