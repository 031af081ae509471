#include "QZmath/LinSys/detail/MklThreads.h"

#include <mkl_service.h>

namespace REmath
{
namespace detail
{
CSingleMklThreadScope::CSingleMklThreadScope(bool active)
    : m_bActive(active), m_iPrevious(active ? mkl_set_num_threads_local(1) : 0)
{
}

CSingleMklThreadScope::~CSingleMklThreadScope()
{
  // 0 hands the thread back to the global setting.
  if (m_bActive)
    mkl_set_num_threads_local(m_iPrevious);
}
} // namespace detail
} // namespace REmath
