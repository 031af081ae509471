#pragma once
// Checks of the arguments every solver core receives.

#include "QZmath/LinSys/LinearSystemInterfaces.h"

namespace REmath
{
namespace detail
{
/// True when `nRightParts` is not negative and, for a positive count, both
/// parallel arrays and every pointer in them exist: the cores would otherwise
/// read through a null pointer or size their arrays by a negative count.
template <class T>
bool areRightPartsUsable(int nRightParts, IVertexPosInformer<T> const * const * informers,
                         IEqSysResultReciever<T> * const * recievers)
{
  if (nRightParts < 0)
    return false;
  if (nRightParts == 0)
    return true;
  if (informers == nullptr || recievers == nullptr)
    return false;
  for (int i = 0; i < nRightParts; ++i)
  {
    if (informers[i] == nullptr || recievers[i] == nullptr)
      return false;
  }
  return true;
}
} // namespace detail
} // namespace REmath
