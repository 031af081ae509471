#pragma once
// Scoped lockers of the block processor. Their trace lines are part of what
// they do: a log of a run shows every mutex taken and given back.

#include "QZsys/DebugLog.h"
#include "QZsys/Threading.h"

namespace BlockProc
{
class CBlockProcessor;

namespace detail
{
/// Holds one mutex (which may be null: then nothing is locked or logged).
class CSingleMutexLocker
{
public:
  CSingleMutexLocker(IVescaMutex * mutex, VsUt::IDebugLog * log, int workerId);
  ~CSingleMutexLocker();
  CSingleMutexLocker(CSingleMutexLocker const &) = delete;
  CSingleMutexLocker & operator=(CSingleMutexLocker const &) = delete;

  /// Gives the mutex back early; the destructor then does nothing.
  void Unlock();
  IVescaMutex * GetMutex() const { return m_pMutex; }

private:
  bool m_bLocked = false;
  IVescaMutex * m_pMutex;
  VsUt::IDebugLog * m_pLog;
  int m_iWorkerId;
};

/// Holds every read mutex of a processor, taken in list order: the write side
/// of the processor's reader-writer lock.
class CAllMutexesLocker
{
public:
  CAllMutexesLocker(CBlockProcessor * processor, int workerId);
  ~CAllMutexesLocker();
  CAllMutexesLocker(CAllMutexesLocker const &) = delete;
  CAllMutexesLocker & operator=(CAllMutexesLocker const &) = delete;

  void Unlock();

private:
  CBlockProcessor * m_pProcessor;
  bool m_bLocked = false;
  int m_iWorkerId;
};
} // namespace detail
} // namespace BlockProc
