#include "QZmath/BlockProcessor/BlockWorker.h"

#include "QZmath/BlockProcessor/BlockProc.h"
#include "QZmath/BlockProcessor/ThreadTrace.h"
#include "QZmath/BlockProcessor/detail/MutexLockers.h"

namespace BlockProc
{
namespace
{
// An idle worker looks at its abort event this often, so that an abort ends it
// even when no wake-up ever comes.
constexpr unsigned tf_IdleWaitMs = 20;
} // namespace

CBlockWorker::CBlockWorker(CBlockProcessor * processor, bool ownProgress)
    : m_pProcessor(processor), m_bOwnProgress(ownProgress)
{
  IVescaThreadingFactory & factory = CVescaSingletonT<IVescaThreadingFactory>::instance();
  m_pIdleEvent.reset(factory.createBlockingEvent());
  m_pWakeUpEvent.reset(factory.createBlockingEvent());
  m_pAbortEvent.reset(factory.createBlockingEvent());
  if (m_bOwnProgress)
    m_pProgress = new CProgressCounter;
  else if (m_pProcessor)
    m_pProgress = m_pProcessor->GetProgressCounter();
  if (m_pProcessor)
  {
    try
    {
      m_pReadMutex = m_pProcessor->AddWorkerReadMutex();
    }
    catch (...)
    {
      if (m_bOwnProgress)
        delete m_pProgress;
      throw;
    }
  }
}

CBlockWorker::~CBlockWorker()
{
  if (m_bOwnProgress)
    delete m_pProgress;
}

bool CBlockWorker::BlockInit(IVescaFragmentDescriptor_Old &, IVescaFragment_Old *) { return true; }

bool CBlockWorker::BlockInitUnshared(IVescaFragmentDescriptor_Old &, IVescaFragment_Old *) { return true; }

void CBlockWorker::Work()
{
  if (!m_pProcessor)
    return;
  try
  {
    while (workOnce())
    {
    }
  }
  catch (CUserIntrException const &)
  {
    m_pProcessor->SetUserBreak(true);
    m_pProcessor->SetAbortEvent();
  }
  catch (...)
  {
    DebugThreadMessage(m_pDebugLog, m_iID, "Unexpected error in BlockProc::CBlockWorker::Work()");
    m_pProcessor->SetAbortEvent();
  }
}

bool CBlockWorker::workOnce()
{
  if (m_pAbortEvent->wait(0))
  {
    DebugThreadMessage(m_pDebugLog, m_iID, "Worker caught m_hWorkerAbortEvent. Quit work");
    return false;
  }

  DebugThreadMessage(m_pDebugLog, m_iID, "Trying to lock manager before exclusive block locking/returning...");
  detail::CSingleMutexLocker locker(m_pProcessor->GetBlockMutex(), m_pDebugLog, m_iID);
  if (!m_pProcessor->HasPotentialJob())
  {
    DebugThreadMessage(m_pDebugLog, m_iID, "Blocks over");
    return false; // the locker gives the mutex back
  }
  if (!m_pProcessor->HasCurrentJob())
  {
    DebugThreadMessage(m_pDebugLog, m_iID, "No free blocks, going to sleep...");
    // Marked idle while the block mutex is still held: a block that finishes
    // right after the unlock finds the mark, so no wake-up is lost.
    m_pIdleEvent->set();
    locker.Unlock();
    DebugThreadMessage(m_pDebugLog, m_iID, "Leave mutex %p for getting block",
                       static_cast<void *>(m_pProcessor->GetBlockMutex()));
    for (;;)
    {
      bool const wokenUp = m_pWakeUpEvent->wait(tf_IdleWaitMs);
      if (m_pAbortEvent->wait(0))
      {
        DebugThreadMessage(m_pDebugLog, m_iID, "Waked up by abort event. Quit job.");
        return false;
      }
      if (wokenUp)
        break;
    }
    DebugThreadMessage(m_pDebugLog, m_iID, "Waked up after sleep");
    return true;
  }

  Block_iter const block = m_pProcessor->LockNextBlock(this);
  if (block == m_pProcessor->BlockEnd())
    return false;
  locker.Unlock();

  try
  {
    // A structure that hands out a null descriptor has nothing to process:
    // the block is simply given back.
    if (IVescaFragmentDescriptor_Old * const desc = block.GetDesc())
      m_pProcessor->BlockProcessCore(*this, *desc);
  }
  catch (...)
  {
    DebugThreadMessage(m_pDebugLog, m_iID, "ERROR during BlockProcessCore");
    // The manager's tables must stay true: the failed block is given back
    // before the error travels on.
    ReturnBlockToManager(block);
    throw;
  }
  ReturnBlockToManager(block);
  return true;
}

void CBlockWorker::ReturnBlockToManager(Block_iter block)
{
  if (!m_pProcessor)
    return;
  IVescaMutex * const blockMutex = m_pProcessor->GetBlockMutex();
  detail::CSingleMutexLocker locker(blockMutex, m_pDebugLog, m_iID);
  DebugThreadMessage(m_pDebugLog, m_iID, "Enter mutex %p for unlock block", static_cast<void *>(blockMutex));
  m_pProcessor->UnLockBlock(block, this);
  DebugThreadMessage(m_pDebugLog, m_iID, "Leave mutex %p for unlock block", static_cast<void *>(blockMutex));
  DebugThreadMessage(m_pDebugLog, m_iID,
                     "Reporting that block finished, one can try to wake up idle workers...");
  m_pProcessor->GetOneBlockFinishedEvent()->set();
}
} // namespace BlockProc
