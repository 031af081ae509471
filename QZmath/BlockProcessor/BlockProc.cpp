#include "QZmath/BlockProcessor/BlockProc.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <new>
#include <utility>

#include "QZmath/BlockProcessor/ThreadTrace.h"
#include "QZmath/BlockProcessor/detail/MutexLockers.h"
#include "QZmath/BlockProcessor/detail/StoredPtr.h"

namespace BlockProc
{
namespace
{
// The manager's only blocking call: how long it sleeps when a round of its
// loop found nothing to do.
constexpr unsigned tf_ManagerSleepMs = 50;
// Workers of a parallel run are numbered from here.
constexpr int tf_FirstWorkerId = 10000;

IVescaThreadingFactory & tf_factory() { return CVescaSingletonT<IVescaThreadingFactory>::instance(); }

// Blocks lie in ascending address order along the walk; std::less gives a
// total order even for pointers into different objects.
bool tf_before(IVescaFragmentDescriptor_Old const * a, IVescaFragmentDescriptor_Old const * b)
{
  return std::less<IVescaFragmentDescriptor_Old const *>()(a, b);
}

/// The entry of a worker thread. Nothing escapes it: a failure ends in the
/// processor's abort event and a trace line.
class TF_InvokeWorker : public IVescaInvokeProc
{
public:
  explicit TF_InvokeWorker(CBlockWorker * worker) : m_pWorker(worker) {}

  void run() override
  {
    VsUt::IDebugLog * const log = m_pWorker->GetDebugLog();
    int const id = m_pWorker->GetID();
    try
    {
      DebugThreadMessage(log, id, "Initializing ...");
      m_pWorker->Init();
      m_pWorker->Work();
      DebugThreadMessage(log, id, "Work finished. Sending release signal.");
    }
    catch (CUserIntrException const &)
    {
      DebugThreadMessage(log, id, "An ERROR occurred. Sending release signal.");
      raiseAbort(true);
    }
    catch (...)
    {
      DebugThreadMessage(log, id, "An ERROR occurred. Sending release signal.");
      raiseAbort(false);
    }
  }

private:
  // `Work` handles its own failures; what reaches here came from `Init` (or
  // the log), and a worker that never worked must not let the pass end as if
  // every block had been done.
  void raiseAbort(bool userBreak) noexcept
  {
    CBlockProcessor * const processor = m_pWorker->GetProcessor();
    if (!processor)
      return;
    try
    {
      if (userBreak)
        processor->SetUserBreak(true);
      processor->SetAbortEvent();
    }
    catch (...)
    {
    }
  }

  CBlockWorker * m_pWorker;
};

/// One worker of a parallel run with its thread. The thread is deleted first:
/// that waits for its end, after which invoker and worker may go.
struct tf_WorkerSlot
{
  std::unique_ptr<CBlockWorker> worker;
  std::unique_ptr<TF_InvokeWorker> invoker;
  std::unique_ptr<IVescaThread> thread;
};
} // namespace

// ---------------------------------------------------------------- life

CBlockProcessor::CBlockProcessor()
{
  IVescaThreadingFactory & factory = tf_factory();
  m_pOneBlockFinishedEvent.reset(factory.createBlockingEvent());
  m_pAbortEvent.reset(factory.createBlockingEvent());
  m_pBlockMutex.reset(factory.createMutex());
}

CBlockProcessor::~CBlockProcessor() = default;

// ---------------------------------------------------------------- Run

int CBlockProcessor::Run()
{
  if (!m_pBlockStructure)
    return QZ_STATUS_UNEXPECTED_ERR;
  // Fragments are written back by ApplyBlockChanges, which only runs when
  // blocks are modified immediately: extraction alone would lose them.
  if (m_bExtract && !m_bModifyImmediately)
    return QZ_STATUS_BAD_CONFIGURATION;
  if (m_bUseParallelThreads && m_iNParallelThreads < 1)
    return QZ_STATUS_BAD_CONFIGURATION;

  try
  {
    // Requests left over from an earlier run must not end this one.
    m_bUserBreak.store(false);
    m_pAbortEvent->wait(0);
    m_pOneBlockFinishedEvent->wait(0);

    ResetWholeProcessStatus();
    {
      CPrgCntSubPhase phase(m_pProgress, 0, 5, 0, true);
      PreliminaryGlobalActions();
    }
    {
      CPrgCntSubPhase passesPhase(m_pProgress, 5, 90, 0, true);
      for (m_iCurrentPass = 0; m_iCurrentPass < m_iNPasses; ++m_iCurrentPass)
      {
        double const passes = static_cast<double>(m_iNPasses);
        CPrgCntSubPhase passPhase(m_pProgress, m_iCurrentPass / passes, 1.0 / passes, 1, true);
        {
          CPrgCntSubPhase phase(m_pProgress, 0, 5, 0, true);
          PreliminaryPassActions();
          m_pBlockStructure->OnNewPass();
          OnBlockStructureInit();
        }
        {
          CPrgCntSubPhase phase(m_pProgress, 5, 90, 0, true);
          if (m_bUseParallelThreads)
            ParallelBlockProcess();
          else
            serialBlockProcess();
        }
        {
          CPrgCntSubPhase phase(m_pProgress, 95, 5, 0, true);
          if (!m_bModifyImmediately)
          {
            Block_iter const end = BlockEnd();
            for (Block_iter it = m_pBlockStructure->Begin(); it != end; ++it)
              if (it.GetDesc())
                ApplyBlockChangesBlockNotExtr(*it.GetDesc());
          }
          FinalPassActions();
        }
      }
    }
    {
      CPrgCntSubPhase phase(m_pProgress, 95, 5, 0, true);
      FinalGlobalActions();
    }
    return GetWholeProcessResult();
  }
  catch (EBlockAlgError const & e)
  {
    return e.GetErrorCode();
  }
  catch (std::bad_alloc const &)
  {
    return QZ_STATUS_NO_MEMORY;
  }
  catch (CUserIntrException const &)
  {
    return QZ_STATUS_USER_INTR;
  }
  catch (...)
  {
    return QZ_STATUS_UNEXPECTED_ERR;
  }
}

void CBlockProcessor::checkSerialAbort()
{
  bool const aborted = m_pAbortEvent->wait(0);
  if (m_bUserBreak.load())
    throw EBlockAlgError(QZ_STATUS_USER_INTR);
  if (aborted)
    throw EBlockAlgError(QZ_STATUS_UNEXPECTED_ERR);
}

void CBlockProcessor::serialBlockProcess()
{
  Block_iter const end = BlockEnd();
  int const count = m_iBlockCount;
  int index = 0;
  for (Block_iter it = m_NextBlock; it != end; ++index)
  {
    checkSerialAbort();
    {
      double const share = count > 0 ? 1.0 / count : 0.0;
      CPrgCntSubPhase phase(m_pProgress, index * share, share, 1, true);
      if (IVescaFragmentDescriptor_Old * const desc = it.GetDesc())
      {
        if (m_bModifyImmediately)
          SingleBlockProcessAndApply(*desc);
        else
          SingleBlockProcess(*desc);
      }
    }
    ++it;
    // The schedule follows the walk, so that IsBlockProcessed answers for
    // serial runs as well.
    m_NextBlock = it;
    ++m_iFinishedBlocks;
  }
  // A request made during the last block still ends the run before the pass
  // hooks take its results as complete.
  checkSerialAbort();
}

void CBlockProcessor::SingleBlockProcess(IVescaFragmentDescriptor_Old & desc) { processSerialBlock(desc, false); }

void CBlockProcessor::SingleBlockProcessAndApply(IVescaFragmentDescriptor_Old & desc)
{
  processSerialBlock(desc, true);
}

void CBlockProcessor::processSerialBlock(IVescaFragmentDescriptor_Old & desc, bool apply)
{
  // Declared first, deleted last: the fragment goes before its worker.
  detail::CStoredPtr<CBlockWorker> worker(CreateBlockWorker(false));
  if (!worker)
    throw EBlockAlgError(QZ_STATUS_UNEXPECTED_ERR);
  worker->Init();
  detail::CStoredPtr<IVescaFragment_Old> fragment;
  if (apply && m_bExtract)
  {
    fragment.reset(ExtractBlock(desc));
    if (!fragment)
      return; // an empty block: nothing to do, and it counts as finished
  }
  if (!worker->BlockInit(desc, fragment.get()) || !worker->BlockInitUnshared(desc, fragment.get()))
    return;
  CheckWorkerResult(worker->ProcessFragment(desc, fragment.get()));
  worker->BlockFinalize(desc, fragment.get());
  if (apply && m_bModifyImmediately)
    ApplyBlockChanges(desc, fragment.get());
}

// ---------------------------------------------------------------- default hooks

void CBlockProcessor::ApplyBlockChanges(IVescaFragmentDescriptor_Old const &, IVescaFragment_Old *) {}

void CBlockProcessor::ApplyBlockChangesBlockNotExtr(IVescaFragmentDescriptor_Old const &) {}

IVescaFragment_Old * CBlockProcessor::ExtractBlock(IVescaFragmentDescriptor_Old const &) { return nullptr; }

void CBlockProcessor::CheckWorkerResult(int code)
{
  if (code == 0)
    return;
  if (code == QZ_STATUS_USER_INTR)
    throw CUserIntrException("user interruption");
  throw EBlockAlgError(code);
}

void CBlockProcessor::InitThreadedPrgCnt()
{
  m_pThreadedPrgCnt.reset();
  m_pThreadedPrgCnt.reset(new CPrgCntBlocksTreaded(m_pProgress));
  m_pThreadedPrgCnt->SetBlocksNumber(std::max(m_iBlockCount, 0));
}

void CBlockProcessor::ReleaseThreadedPrgCnt() { m_pThreadedPrgCnt.reset(); }

void CBlockProcessor::UpdateParentPrgCnt()
{
  if (m_pThreadedPrgCnt)
    m_pThreadedPrgCnt->UpdateParentPrgCnt();
}

void CBlockProcessor::RegisterWorkerPrgCnt(CBlockWorker * worker)
{
  // A worker that reports on the processor's own counter is not a child of
  // it: joining would reset the manager's counter from a worker thread.
  if (m_pThreadedPrgCnt && worker && worker->GetProgressCounter() != m_pProgress)
    m_pThreadedPrgCnt->AddChildPrgCnt(worker->GetProgressCounter());
}

void CBlockProcessor::UnRegisterWorkerPrgCnt(CBlockWorker * worker)
{
  if (m_pThreadedPrgCnt && worker && worker->GetProgressCounter() != m_pProgress)
    m_pThreadedPrgCnt->RemoveChildPrgCnt(worker->GetProgressCounter());
}

void CBlockProcessor::OnBlockProcessStart(Block_iter block, CBlockWorker * worker)
{
  if (m_pThreadedPrgCnt && worker)
    m_pThreadedPrgCnt->BindChildToBlock(m_pBlockStructure->BlockIndex(block), worker->GetProgressCounter());
}

void CBlockProcessor::OnBlockProcessFinish(Block_iter block, CBlockWorker * worker)
{
  if (m_pThreadedPrgCnt && worker)
    m_pThreadedPrgCnt->OnOneBlockMoreFinished(m_pBlockStructure->BlockIndex(block),
                                              worker->GetProgressCounter());
}

// ---------------------------------------------------------------- schedule

Block_iter CBlockProcessor::BlockEnd() const
{
  Block_iter end;
  if (m_pBlockStructure)
    m_pBlockStructure->BlockEnd(end);
  return end;
}

void CBlockProcessor::OnBlockStructureInit()
{
  m_NextBlock = Block_iter();
  if (m_pBlockStructure)
    m_pBlockStructure->BlockBegin(m_NextBlock);
  m_iBlockCount = m_pBlockStructure ? m_pBlockStructure->BlockCount() : 0;
  m_vBlocksInWork.clear();
  m_vFinishedBlocks.clear();
  m_iFinishedBlocks = 0;
  m_vReadMutexes.clear();
  if (m_bUseParallelThreads && m_iNParallelThreads > 0)
    m_vReadMutexes.reserve(static_cast<std::size_t>(m_iNParallelThreads));
}

bool CBlockProcessor::isBehindNext(IVescaFragmentDescriptor_Old const * desc) const
{
  // The next block only ever passes processed blocks, so once it has reached
  // the end every block lies behind it, whatever address the end holds.
  return m_NextBlock == BlockEnd() || tf_before(desc, m_NextBlock.GetDesc());
}

bool CBlockProcessor::isProcessed(IVescaFragmentDescriptor_Old const * desc) const
{
  if (isBehindNext(desc))
    return true;
  for (Block_iter const & finished : m_vFinishedBlocks)
    if (finished.GetDesc() == desc)
      return true;
  return false;
}

bool CBlockProcessor::isReady(IVescaFragmentDescriptor_Old const * desc) const
{
  if (isProcessed(desc))
    return false;
  for (Block_iter const & inWork : m_vBlocksInWork)
    if (!m_pBlockStructure->AreBlocksIndependent(desc, inWork.GetDesc()))
      return false;
  return true;
}

bool CBlockProcessor::IsBlockProcessed(IVescaFragmentDescriptor_Old const & desc) const { return isProcessed(&desc); }

bool CBlockProcessor::IsBlockReadyForProcess(IVescaFragmentDescriptor_Old const & desc) const
{
  return isReady(&desc);
}

bool CBlockProcessor::HasPotentialJob() const
{
  Block_iter const end = BlockEnd();
  for (Block_iter it = m_NextBlock; it != end; ++it)
    if (!isProcessed(it.GetDesc()))
      return true;
  return false;
}

bool CBlockProcessor::HasCurrentJob() const
{
  Block_iter const end = BlockEnd();
  for (Block_iter it = m_NextBlock; it != end; ++it)
    if (isReady(it.GetDesc()))
      return true;
  return false;
}

Block_iter CBlockProcessor::LockNextBlock(CBlockWorker * worker)
{
  DebugThreadMgrMessage(m_pDebugLog, "Manager state before locking next block");
  Block_iter const end = BlockEnd();
  while (m_NextBlock != end && isProcessed(m_NextBlock.GetDesc()))
    ++m_NextBlock;
  // Finished blocks that the next block has passed are processed by their
  // position alone; dropping them keeps every later look-up short without
  // changing any answer.
  m_vFinishedBlocks.erase(std::remove_if(m_vFinishedBlocks.begin(), m_vFinishedBlocks.end(),
                                         [this](Block_iter const & b) { return isBehindNext(b.GetDesc()); }),
                          m_vFinishedBlocks.end());
  Block_iter block = m_NextBlock;
  while (block != end && !isReady(block.GetDesc()))
    ++block;
  if (block != end)
  {
    m_vBlocksInWork.push_back(block);
    OnBlockProcessStart(block, worker);
  }
  return block;
}

void CBlockProcessor::UnLockBlock(Block_iter block, CBlockWorker * worker)
{
  ++m_iFinishedBlocks;
  DebugThreadMgrMessage(m_pDebugLog, "Manager state before unblocking block");
  auto const found = std::find(m_vBlocksInWork.begin(), m_vBlocksInWork.end(), block);
  if (found != m_vBlocksInWork.end())
  {
    *found = m_vBlocksInWork.back();
    m_vBlocksInWork.pop_back();
  }
  OnBlockProcessFinish(block, worker);
  if (!isBehindNext(block.GetDesc()))
    m_vFinishedBlocks.push_back(block);
  DebugThreadMgrMessage(m_pDebugLog, "Manager state after UnLocking block");
}

// ---------------------------------------------------------------- model access

IVescaMutex * CBlockProcessor::AddWorkerReadMutex()
{
  IVescaMutexPtr mutex(tf_factory().createMutex());
  m_vReadMutexes.push_back(std::move(mutex));
  return m_vReadMutexes.back().get();
}

void CBlockProcessor::LockAllMutexes(int)
{
  std::size_t locked = 0;
  try
  {
    for (; locked < m_vReadMutexes.size(); ++locked)
      m_vReadMutexes[locked]->lock();
  }
  catch (...)
  {
    while (locked > 0)
      m_vReadMutexes[--locked]->unlock();
    throw;
  }
}

void CBlockProcessor::UnlockAllMutexes(int)
{
  for (IVescaMutexPtr const & mutex : m_vReadMutexes)
    mutex->unlock();
}

void CBlockProcessor::BlockProcessCore(CBlockWorker & worker, IVescaFragmentDescriptor_Old & desc)
{
  VsUt::IDebugLog * const log = worker.GetDebugLog();
  int const id = worker.GetID();
  void * const descPtr = static_cast<void *>(&desc);

  DebugThreadMessage(log, id, "Processing block %p", descPtr);
  detail::CStoredPtr<IVescaFragment_Old> fragment;
  bool const unshared = NeedUnsharedWorkerInit();
  {
    detail::CSingleMutexLocker readLock(worker.GetReadMutex(), log, id);
    DebugThreadMessage(log, id, "Entered read mutex %p for extracting from huge model",
                       static_cast<void *>(worker.GetReadMutex()));
    DebugThreadMessage(log, id, "Extracting block %p", descPtr);
    if (m_bExtract)
      fragment.reset(ExtractBlock(desc));
    DebugThreadMessage(log, id, "Block extraction finished");
    if (m_bExtract && !fragment)
    {
      DebugThreadMessage(log, id, "Empty block ");
      return;
    }
    if (!worker.BlockInit(desc, fragment.get()))
    {
      DebugThreadMessage(log, id, "!Worker.BlockInit()");
      return;
    }
    if (!unshared && !worker.BlockInitUnshared(desc, fragment.get()))
    {
      DebugThreadMessage(log, id, "!Worker.BlockInit()");
      return;
    }
    DebugThreadMessage(log, id, "Leaving read mutex %p for extracting from huge model",
                       static_cast<void *>(worker.GetReadMutex()));
  }

  if (unshared)
  {
    // The write side is the set of all read mutexes; its address names it.
    void * const writeSide = static_cast<void *>(&m_vReadMutexes);
    DebugThreadMessage(log, id, "Entering write mutex %p for init un-shared block init", writeSide);
    detail::CAllMutexesLocker writeLock(this, id);
    if (!worker.BlockInitUnshared(desc, fragment.get()))
    {
      DebugThreadMessage(log, id, "!Worker.BlockInit()");
      return;
    }
    DebugThreadMessage(log, id, "Leaving write mutex %p for init un-shared block init", writeSide);
  }

  CheckWorkerResult(worker.ProcessFragment(desc, fragment.get()));

  if (m_bModifyImmediately)
  {
    DebugThreadMessage(log, id, "Locking all mutexes due to updating block");
    detail::CAllMutexesLocker writeLock(this, id);
    DebugThreadMessage(log, id, "All mutexes locked due to updating block");
    worker.BlockFinalize(desc, fragment.get());
    DebugThreadMessage(log, id, "Entered mutex for updating huge model");
    DebugThreadMessage(log, id, "Updating huge model block %p", descPtr);
    ApplyBlockChanges(desc, fragment.get());
    DebugThreadMessage(log, id, "Update completed");
    DebugThreadMessage(log, id, "Unlocking all mutexes caused by updating block");
  }
}

// ---------------------------------------------------------------- parallel pass

void CBlockProcessor::ParallelBlockProcess()
{
  int const threadCount = m_iNParallelThreads;
  std::vector<tf_WorkerSlot> slots;
  slots.reserve(static_cast<std::size_t>(std::max(threadCount, 0)));

  // Stops every living worker and frees it; with `orderly` the manager's trace
  // lines are written and the hooks' failures pass on, otherwise (on the way
  // out of an exception) nothing may stop the cleanup.
  auto abortWorkers = [&](bool orderly) {
    for (tf_WorkerSlot & slot : slots)
    {
      if (orderly)
        DebugThreadMgrMessage(m_pDebugLog, "Sending aborting signal to worker %d", slot.worker->GetID());
      slot.worker->GetWorkerAbortEvent()->set();
    }
    std::exception_ptr hookError;
    for (tf_WorkerSlot & slot : slots)
    {
      int const id = slot.worker->GetID();
      slot.thread.reset(); // waits for the thread's end
      if (orderly)
        DebugThreadMgrMessage(m_pDebugLog, "Worker %d successfully aborted", id);
      try
      {
        UnRegisterWorkerPrgCnt(slot.worker.get());
      }
      catch (...)
      {
        if (orderly && !hookError)
          hookError = std::current_exception();
      }
      slot.invoker.reset();
      slot.worker.reset();
    }
    slots.clear();
    if (hookError)
      std::rethrow_exception(hookError);
  };

  // A worker that fails sets the abort event; an outside caller may set the
  // user break alone.
  auto abortRequested = [this] { return m_pAbortEvent->wait(0) || m_bUserBreak.load(); };

  auto raiseAbort = [&] {
    DebugThreadMgrMessage(m_pDebugLog, "AbortEvent caught");
    abortWorkers(true);
    ReleaseThreadedPrgCnt();
    if (m_bUserBreak.load())
    {
      DebugThreadMgrMessage(m_pDebugLog, "Raising EBlockAlgError( QZ_STATUS_USER_INTR )");
      throw EBlockAlgError(QZ_STATUS_USER_INTR);
    }
    DebugThreadMgrMessage(m_pDebugLog, "Raising EBlockAlgError( QZ_STATUS_UNEXPECTED_ERR )");
    throw EBlockAlgError(QZ_STATUS_UNEXPECTED_ERR);
  };

  try
  {
    InitThreadedPrgCnt();
    // Every worker (and so every read mutex) exists before the first thread
    // starts: the mutex list is then fixed while writers walk it.
    for (int i = 0; i < threadCount; ++i)
    {
      tf_WorkerSlot slot;
      slot.worker.reset(CreateBlockWorker(true));
      if (!slot.worker)
        throw EBlockAlgError(QZ_STATUS_UNEXPECTED_ERR);
      slot.worker->SetID(tf_FirstWorkerId + i);
      slot.worker->SetDebugLog(m_pDebugLog);
      slot.invoker.reset(new TF_InvokeWorker(slot.worker.get()));
      slots.push_back(std::move(slot));
      RegisterWorkerPrgCnt(slots.back().worker.get());
    }
    for (tf_WorkerSlot & slot : slots)
    {
      slot.thread.reset(tf_factory().createThread());
      slot.thread->setProc(slot.invoker.get());
      slot.thread->start();
    }
    std::unique_ptr<IVescaSleeper> sleeper(tf_factory().createSleeper());

    while (!slots.empty())
    {
      UpdateParentPrgCnt();
      if (abortRequested())
        raiseAbort();

      bool noted = false;
      if (m_pOneBlockFinishedEvent->wait(0))
      {
        noted = true;
        DebugThreadMgrMessage(m_pDebugLog, "One more finished block detected");
      }
      for (std::size_t i = 0; i < slots.size(); ++i)
      {
        if (!slots[i].thread->wait(0))
          continue;
        noted = true;
        DebugThreadMgrMessage(m_pDebugLog, "Worker ID=%d worker released", slots[i].worker->GetID());
        slots[i].thread.reset();
        UnRegisterWorkerPrgCnt(slots[i].worker.get());
        slots.erase(slots.begin() + static_cast<std::ptrdiff_t>(i));
        break; // one worker per round
      }

      if (noted)
      {
        DebugThreadMgrMessage(m_pDebugLog, "Waking up idles...");
        for (tf_WorkerSlot & slot : slots)
          if (slot.worker->GetIdleWorkerEvent()->wait(0))
          {
            DebugThreadMgrMessage(m_pDebugLog, "Waking up idle worker ID = %d", slot.worker->GetID());
            slot.worker->GetWorkerWakeUpEvent()->set();
          }
        DebugThreadMgrMessage(m_pDebugLog, "Waking up idles done.");
      }
      else
        sleeper->sleep(tf_ManagerSleepMs);
    }
    // The last worker may have failed and ended between the abort poll and its
    // release: its abort must not go unnoticed.
    if (abortRequested())
      raiseAbort();
  }
  catch (...)
  {
    // No worker thread may outlive the pass, whatever ended it.
    abortWorkers(false);
    ReleaseThreadedPrgCnt();
    throw;
  }
  ReleaseThreadedPrgCnt();
  DebugThreadMgrMessage(m_pDebugLog, "Thread stuff finished");
}
} // namespace BlockProc
