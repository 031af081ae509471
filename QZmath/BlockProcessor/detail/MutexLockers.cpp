#include "QZmath/BlockProcessor/detail/MutexLockers.h"

#include <cstddef>

#include "QZmath/BlockProcessor/BlockProc.h"
#include "QZmath/BlockProcessor/ThreadTrace.h"

namespace BlockProc
{
namespace detail
{
// ---------------------------------------------------------------- single mutex

CSingleMutexLocker::CSingleMutexLocker(IVescaMutex * mutex, VsUt::IDebugLog * log, int workerId)
    : m_pMutex(mutex), m_pLog(log), m_iWorkerId(workerId)
{
  if (!m_pMutex)
    return;
  DebugThreadMessage(m_pLog, m_iWorkerId, "Locking single mutex %p.", static_cast<void *>(m_pMutex));
  m_pMutex->lock();
  m_bLocked = true;
  DebugThreadMessage(m_pLog, m_iWorkerId, "Single mutex %p locked.", static_cast<void *>(m_pMutex));
}

CSingleMutexLocker::~CSingleMutexLocker() { Unlock(); }

void CSingleMutexLocker::Unlock()
{
  if (!m_bLocked)
    return;
  DebugThreadMessage(m_pLog, m_iWorkerId, "Unlocking single mutex %p", static_cast<void *>(m_pMutex));
  m_bLocked = false;
  m_pMutex->unlock();
}

// ---------------------------------------------------------------- all mutexes

CAllMutexesLocker::CAllMutexesLocker(CBlockProcessor * processor, int workerId)
    : m_pProcessor(processor), m_iWorkerId(workerId)
{
  if (!m_pProcessor)
    return;
  VsUt::IDebugLog * const log = m_pProcessor->GetDebugLog();
  std::vector<IVescaMutexPtr> const & mutexes = m_pProcessor->m_vReadMutexes;
  int const count = static_cast<int>(mutexes.size());
  DebugThreadMessage(log, m_iWorkerId, "Going to lock %d mutexes", count);
  int locked = 0;
  try
  {
    for (; locked < count; ++locked)
    {
      IVescaMutex * const mutex = mutexes[static_cast<std::size_t>(locked)].get();
      DebugThreadMessage(log, m_iWorkerId, "Locking mutex number %d", locked);
      DebugThreadMessage(log, m_iWorkerId, "Locking mutex %p", static_cast<void *>(mutex));
      mutex->lock();
      DebugThreadMessage(log, m_iWorkerId, "Mutex %p locked", static_cast<void *>(mutex));
    }
  }
  catch (...)
  {
    // A constructor that throws runs no destructor: give back what was taken.
    while (locked > 0)
      mutexes[static_cast<std::size_t>(--locked)]->unlock();
    throw;
  }
  m_bLocked = true;
  DebugThreadMessage(log, m_iWorkerId, "All mutexes locked by locker %p", static_cast<void *>(this));
}

CAllMutexesLocker::~CAllMutexesLocker()
{
  if (!m_pProcessor)
    return;
  DebugThreadMessage(m_pProcessor->GetDebugLog(), m_iWorkerId, "Destructor of locker %p entered",
                     static_cast<void *>(this));
  Unlock();
}

void CAllMutexesLocker::Unlock()
{
  if (!m_pProcessor)
    return;
  VsUt::IDebugLog * const log = m_pProcessor->GetDebugLog();
  DebugThreadMessage(log, m_iWorkerId, "Unlock of locker %p entered", static_cast<void *>(this));
  if (m_bLocked)
  {
    std::vector<IVescaMutexPtr> const & mutexes = m_pProcessor->m_vReadMutexes;
    int const count = static_cast<int>(mutexes.size());
    DebugThreadMessage(log, m_iWorkerId, "Going to unlock %d mutexes", count);
    DebugThreadMessage(log, m_iWorkerId, "Going to unlock all mutexes");
    for (int i = 0; i < count; ++i)
    {
      IVescaMutex * const mutex = mutexes[static_cast<std::size_t>(i)].get();
      DebugThreadMessage(log, m_iWorkerId, "Unlocking mutex number %d", i);
      DebugThreadMessage(log, m_iWorkerId, "Unlocking mutex %p", static_cast<void *>(mutex));
      mutex->unlock();
    }
    m_bLocked = false;
  }
  DebugThreadMessage(log, m_iWorkerId, "All mutexes unlocked by locker %p", static_cast<void *>(this));
}
} // namespace detail
} // namespace BlockProc
