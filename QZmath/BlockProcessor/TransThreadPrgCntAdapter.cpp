#include "QZmath/BlockProcessor/TransThreadPrgCntAdapter.h"

#include <algorithm>

CTransThreadPrgCntAdapter::CTransThreadPrgCntAdapter()
    : m_mutex(CVescaSingletonT<IVescaThreadingFactory>::instance().createMutex()), m_scope(nullptr, 0, 0),
      m_timer(CVescaSingletonT<IVescaThreadingFactory>::instance().createTimer(this))
{
}

CTransThreadPrgCntAdapter::~CTransThreadPrgCntAdapter() = default;

void CTransThreadPrgCntAdapter::refresh(CProgressCounter * progress, int total)
{
  CVescaMutexLock lock(m_mutex.get());
  m_scope.SetCounter(progress);
  m_scope.SetTotal(std::max(total, 0));
  m_scope.SetCurrent(0);
}

void CTransThreadPrgCntAdapter::increment()
{
  CVescaMutexLock lock(m_mutex.get());
  ++m_pending;
  if (m_timer->isCallingThreadOwner())
    processIncrementCore();
}

int CTransThreadPrgCntAdapter::getTotal() const
{
  CVescaMutexLock lock(m_mutex.get());
  return m_scope.GetTotal();
}

int CTransThreadPrgCntAdapter::getCurrent() const
{
  CVescaMutexLock lock(m_mutex.get());
  return m_scope.GetCurrent();
}

void CTransThreadPrgCntAdapter::onProcessTimerEvent()
{
  CVescaMutexLock lock(m_mutex.get());
  processIncrementCore();
}

void CTransThreadPrgCntAdapter::processIncrementCore()
{
  int const total = m_scope.GetTotal();
  // Leave the pending count at zero before a position call can throw an
  // interruption, so that the next timer event does not repeat the steps.
  int const pending = m_pending;
  m_pending = 0;
  for (int i = 0; i < pending; ++i)
  {
    m_scope.SetCurrent(std::min(total, m_scope.GetCurrent() + 1));
    if (CProgressCounter * c = m_scope.GetCounter())
      c->SetPosFloat(total != 0 ? static_cast<double>(m_scope.GetCurrent()) / total : 1.0);
  }
}
