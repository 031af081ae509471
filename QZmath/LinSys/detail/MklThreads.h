#pragma once
// How many threads MKL may use inside the solvers.

namespace REmath
{
namespace detail
{
/// Below this many unknowns a solve holds MKL to one thread: a sparse product
/// or factorisation of such a size is over before a team of threads pays for
/// itself, and on a loaded machine every barrier of the team can cost a whole
/// time slice.
constexpr int st_iMklThreadsMinimumSize = 10000;

/// Holds MKL to one thread on the calling thread for its lifetime, when
/// `active`, and then restores the calling thread's previous setting. Other
/// threads are not affected.
class CSingleMklThreadScope
{
public:
  explicit CSingleMklThreadScope(bool active = true);
  ~CSingleMklThreadScope();
  CSingleMklThreadScope(CSingleMklThreadScope const &) = delete;
  CSingleMklThreadScope & operator=(CSingleMklThreadScope const &) = delete;

private:
  bool m_bActive;
  int m_iPrevious;
};
} // namespace detail
} // namespace REmath
