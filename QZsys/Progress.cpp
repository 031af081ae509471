#include "QZsys/Progress.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace
{
double clamp01(double v)
{
  if (!(v > 0.0)) // NaN too
    return 0.0;
  return v > 1.0 ? 1.0 : v;
}
} // namespace

// ---------------------------------------------------------------- CProgressCounter

CProgressCounter::CProgressCounter() = default;
CProgressCounter::~CProgressCounter() = default;

void CProgressCounter::SetPosFloat(double pos)
{
  CheckInterrupt();
  double const local = clamp01(pos);
  if (m_ranges.empty())
  {
    moveGlobal(local);
    return;
  }
  Range & r = m_ranges.back();
  if (local > r.local)
    r.local = local;
  moveGlobal(r.start + r.length * local);
}

double CProgressCounter::GetLocalPosFloat() const
{
  if (m_ranges.empty())
    return GetPosFloat();
  return m_ranges.back().local;
}

void CProgressCounter::PushRange(double start, double length)
{
  double const s = clamp01(start);
  double const l = std::min(clamp01(length), 1.0 - s);
  double parentStart = 0.0, parentLength = 1.0;
  if (!m_ranges.empty())
  {
    parentStart = m_ranges.back().start;
    parentLength = m_ranges.back().length;
  }
  m_ranges.push_back(Range{parentStart + parentLength * s, parentLength * l, 0.0});
  moveGlobal(m_ranges.back().start);
}

void CProgressCounter::PopRange(bool toEnd) noexcept
{
  if (m_ranges.empty())
    return;
  Range const r = m_ranges.back();
  m_ranges.pop_back();
  if (!toEnd)
    return;
  double const end = r.start + r.length;
  if (!m_ranges.empty())
  {
    // The parent's own position follows the end of the closed sub-range.
    Range & p = m_ranges.back();
    if (p.length > 0.0)
      p.local = std::max(p.local, clamp01((end - p.start) / p.length));
  }
  moveGlobal(end);
}

void CProgressCounter::Reset() noexcept
{
  m_ranges.clear();
  m_global.store(0.0, std::memory_order_relaxed);
}

bool CProgressCounter::IsInterrupted() const
{
  if (m_interrupt.load(std::memory_order_relaxed))
    return true;
  CProgressCounter const * source = m_source.load();
  if (source && source != this && source->m_interrupt.load(std::memory_order_relaxed))
    return true;
  return OnCheckInterrupt();
}

void CProgressCounter::CheckInterrupt() const
{
  if (IsInterrupted())
    throw CUserIntrException();
}

void CProgressCounter::SetPhaseName(std::string const & name)
{
  {
    std::lock_guard<std::mutex> lock(m_nameMutex);
    m_phaseName = name;
  }
  notify();
}

std::string CProgressCounter::GetPhaseName() const
{
  std::lock_guard<std::mutex> lock(m_nameMutex);
  return m_phaseName;
}

void CProgressCounter::AddObserver(IProgressObserver * observer)
{
  if (observer && std::find(m_observers.begin(), m_observers.end(), observer) == m_observers.end())
    m_observers.push_back(observer);
}

void CProgressCounter::RemoveObserver(IProgressObserver * observer)
{
  m_observers.erase(std::remove(m_observers.begin(), m_observers.end(), observer), m_observers.end());
}

void CProgressCounter::moveGlobal(double global) noexcept
{
  global = clamp01(global);
  if (global <= m_global.load(std::memory_order_relaxed))
    return;
  m_global.store(global, std::memory_order_relaxed);
  notify();
}

void CProgressCounter::notify() noexcept
{
  if (m_observers.empty())
    return;
  std::string const name = GetPhaseName();
  double const pos = GetPosFloat();
  for (IProgressObserver * o : m_observers)
  {
    try
    {
      o->onProgress(pos, name);
    }
    catch (...)
    {
      // An observer is a display: its failure must not break the work.
    }
  }
}

// ---------------------------------------------------------------- CPrgCntSubPhase

CPrgCntSubPhase::CPrgCntSubPhase(CProgressCounter * counter, double start, double length, int,
                                 bool finishOnClose)
    : m_counter(counter), m_finishOnClose(finishOnClose)
{
  open(start, length);
}

CPrgCntSubPhase::CPrgCntSubPhase(CProgressCounter * counter, int startPercent, int lengthPercent, int,
                                 bool finishOnClose)
    : m_counter(counter), m_finishOnClose(finishOnClose)
{
  open(startPercent / 100.0, lengthPercent / 100.0);
}

void CPrgCntSubPhase::open(double start, double length)
{
  if (!m_counter)
    return;
  // Check before pushing: a throwing constructor runs no destructor, so the
  // range must not be open yet.
  m_counter->CheckInterrupt();
  m_counter->PushRange(start, length);
  m_open = true;
}

CPrgCntSubPhase::~CPrgCntSubPhase()
{
  if (m_open)
    m_counter->PopRange(m_finishOnClose);
}

void CPrgCntSubPhase::Finish()
{
  if (!m_open)
    return;
  m_open = false;
  m_counter->PopRange(true);
  m_counter->CheckInterrupt();
}

// ---------------------------------------------------------------- CPrgCntBlocksTreaded

CPrgCntBlocksTreaded::CPrgCntBlocksTreaded(CProgressCounter * parent) : m_parent(parent) {}

CPrgCntBlocksTreaded::~CPrgCntBlocksTreaded()
{
  std::lock_guard<std::mutex> lock(m_mutex);
  for (Child & c : m_children)
    c.counter->SetInterruptSource(nullptr);
}

void CPrgCntBlocksTreaded::SetBlocksNumber(int blocks)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  m_blocks.assign(static_cast<std::size_t>(std::max(blocks, 0)), 0.0);
  for (Child & c : m_children)
    c.block = -1;
}

int CPrgCntBlocksTreaded::GetBlocksNumber() const
{
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<int>(m_blocks.size());
}

void CPrgCntBlocksTreaded::AddChildPrgCnt(CProgressCounter * child)
{
  if (!child)
    return;
  std::lock_guard<std::mutex> lock(m_mutex);
  for (Child const & c : m_children)
    if (c.counter == child)
      return;
  child->SetInterruptSource(m_parent);
  m_children.push_back(Child{child, -1});
}

void CPrgCntBlocksTreaded::RemoveChildPrgCnt(CProgressCounter * child)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  for (std::size_t i = 0; i < m_children.size(); ++i)
    if (m_children[i].counter == child)
    {
      child->SetInterruptSource(nullptr);
      m_children.erase(m_children.begin() + static_cast<std::ptrdiff_t>(i));
      return;
    }
}

void CPrgCntBlocksTreaded::BindChildToBlock(int block, CProgressCounter * child)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  for (Child & c : m_children)
    if (c.counter == child)
    {
      // Called on the child's own thread, so resetting it here is safe.
      child->Reset();
      c.block = (block >= 0 && block < static_cast<int>(m_blocks.size())) ? block : -1;
      return;
    }
}

void CPrgCntBlocksTreaded::OnOneBlockMoreFinished(int block, CProgressCounter * child)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  if (block >= 0 && block < static_cast<int>(m_blocks.size()))
    m_blocks[static_cast<std::size_t>(block)] = 1.0;
  for (Child & c : m_children)
    if (c.counter == child)
      c.block = -1;
}

double CPrgCntBlocksTreaded::GetJointPosition() const
{
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_blocks.empty())
    return 0.0;
  double sum = 0.0;
  for (double b : m_blocks)
    sum += b;
  for (Child const & c : m_children)
    if (c.block >= 0 && m_blocks[static_cast<std::size_t>(c.block)] < 1.0)
      sum += c.counter->GetPosFloat();
  return clamp01(sum / static_cast<double>(m_blocks.size()));
}

void CPrgCntBlocksTreaded::UpdateParentPrgCnt()
{
  double const pos = GetJointPosition();
  if (m_parent)
    m_parent->SetPosFloat(pos);
}

// ---------------------------------------------------------------- VsPCnt

namespace VsPCnt
{
double prgCntLongJobPosition(int current, int expected, double a)
{
  if (expected <= 0)
    return current > 0 ? 1.0 : 0.0;
  double const x = static_cast<double>(current) / static_cast<double>(expected);
  if (x <= 1.0)
    return x * (1.0 - a);
  return 1.0 - a / x;
}

CMultiPhaseManager::CMultiPhaseManager(CProgressCounter * counter) : m_counter(counter) {}

CMultiPhaseManager::~CMultiPhaseManager() { abandonCurrentPhase(); }

void CMultiPhaseManager::RegisterPhase(std::string const & name, double weight)
{
  for (Phase const & p : m_phases)
    if (p.name == name)
      throw std::logic_error("Progress phase registered twice: " + name);
  double const w = weight > 0.0 ? weight : 0.0;
  m_phases.push_back(Phase{name, w, m_total});
  m_total += w;
}

void CMultiPhaseManager::StartPhase(std::string const & name)
{
  Phase const * phase = nullptr;
  for (Phase const & p : m_phases)
    if (p.name == name)
      phase = &p;
  if (!phase)
    throw std::logic_error("Unregistered progress phase: " + name);
  FinishCurrentPhase();
  double start = 0.0, length = 0.0;
  if (m_total > 0.0)
  {
    start = phase->before / m_total;
    length = phase->weight / m_total;
  }
  m_current.reset(new CPrgCntSubPhase(m_counter, start, length, 0, true));
  m_currentName = name;
  if (m_showName && m_counter)
    m_counter->SetPhaseName(name);
}

void CMultiPhaseManager::FinishCurrentPhase()
{
  if (!m_current)
    return;
  std::unique_ptr<CPrgCntSubPhase> phase(std::move(m_current));
  m_currentName.clear();
  phase->Finish();
}

void CMultiPhaseManager::abandonCurrentPhase() noexcept
{
  m_current.reset();
  m_currentName.clear();
}

CMultiPhaseManagerSingleSubPhase::CMultiPhaseManagerSingleSubPhase(CMultiPhaseManager * manager,
                                                                   std::string const & name)
    : m_manager(manager), m_name(name)
{
  if (m_manager)
    m_manager->StartPhase(name);
}

CMultiPhaseManagerSingleSubPhase::~CMultiPhaseManagerSingleSubPhase()
{
  // Closing must not throw: the interruption check belongs to the next
  // progress call, not to the unwinding of this scope.
  if (m_manager && m_manager->HasOpenPhase() && m_manager->GetCurrentPhaseName() == m_name)
    m_manager->abandonCurrentPhase();
}
} // namespace VsPCnt
