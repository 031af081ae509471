#pragma once
// One thread's share of a block-processing run.

#include <memory>

#include "QZmath/BlockProcessor/BlockStructure.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Fragments.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

namespace BlockProc
{
class CBlockProcessor;

/// Works on blocks that a `CBlockProcessor` hands out. Subclasses implement
/// `ProcessFragment` (0 for success, 10 for a user interruption, anything else
/// for an error) and `BlockFinalize`; the processor makes them through its
/// `CreateBlockWorker` and deletes them.
///
/// In a parallel run `Work` runs on a thread of its own: it takes a block under
/// the processor's block mutex, processes it with no scheduling lock held,
/// gives it back, and sleeps on its wake-up event when every waiting block
/// conflicts with one in work.
class CBlockWorker : public virtual IVescaFragmentParallelWorker_Old
{
public:
  /// With `ownProgress` the worker makes (and later deletes) a progress counter
  /// of its own, which a parallel run joins into the processor's; otherwise it
  /// reports on the processor's counter. A worker of a processor gets a read
  /// mutex from it; a null processor is allowed (the worker then has no work).
  CBlockWorker(CBlockProcessor * processor, bool ownProgress);
  ~CBlockWorker() override;
  CBlockWorker(CBlockWorker const &) = delete;
  CBlockWorker & operator=(CBlockWorker const &) = delete;

  /// Once per worker, on its thread, before any block.
  virtual void Init() {}
  /// Prepares a block while the model is read-locked. False skips the block
  /// (this is not an error).
  virtual bool BlockInit(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment);
  /// Prepares what needs the model write-locked when the processor asks for
  /// it (`NeedUnsharedWorkerInit`), otherwise runs read-locked after
  /// `BlockInit`. False skips the block.
  virtual bool BlockInitUnshared(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment);
  /// Ends a processed block; runs with the model write-locked in a parallel
  /// run that modifies the model immediately.
  virtual void BlockFinalize(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) = 0;

  /// The worker's loop; returns when the blocks are over or on abort. Never
  /// throws: failures set the processor's abort event (and, for an
  /// interruption, its user break).
  void Work();
  /// Gives a block back to the processor as finished and tells the manager.
  void ReturnBlockToManager(Block_iter block);

  CBlockProcessor * GetProcessor() const { return m_pProcessor; }
  IVescaMutex * GetReadMutex() const { return m_pReadMutex; }
  CProgressCounter * GetProgressCounter() const { return m_pProgress; }
  bool HasOwnProgressCounter() const { return m_bOwnProgress; }
  IVescaBlockingEvent * GetIdleWorkerEvent() const { return m_pIdleEvent.get(); }
  IVescaBlockingEvent * GetWorkerWakeUpEvent() const { return m_pWakeUpEvent.get(); }
  IVescaBlockingEvent * GetWorkerAbortEvent() const { return m_pAbortEvent.get(); }
  void SetID(int id) { m_iID = id; }
  int GetID() const { return m_iID; }
  void SetDebugLog(VsUt::IDebugLog * log) { m_pDebugLog = log; }
  VsUt::IDebugLog * GetDebugLog() const { return m_pDebugLog; }

private:
  // One round of the loop: false when the worker is to stop.
  bool workOnce();

  CBlockProcessor * m_pProcessor;
  IVescaMutex * m_pReadMutex = nullptr;
  CProgressCounter * m_pProgress = nullptr;
  bool m_bOwnProgress;
  std::unique_ptr<IVescaBlockingEvent> m_pIdleEvent;
  std::unique_ptr<IVescaBlockingEvent> m_pWakeUpEvent;
  std::unique_ptr<IVescaBlockingEvent> m_pAbortEvent;
  int m_iID = 10000;
  VsUt::IDebugLog * m_pDebugLog = nullptr;
};
} // namespace BlockProc
