#include "QZmath/Persistence/GraphObject.h"

bool CGraphObject::getOwnColor(unsigned long & color) const
{
  if (!m_bHasOwnColor)
    return false;
  color = m_ulOwnColor;
  return true;
}

bool CGraphObject::setOwnColor(unsigned long color)
{
  m_ulOwnColor = color;
  m_bHasOwnColor = true;
  return true;
}

void CGraphObject::setActive(bool active)
{
  m_bActive = active;
  OnActivation();
}

void CGraphObject::setVisible(bool visible)
{
  m_bVisible = visible;
  OnChangeVisibility();
}

bool CGraphObject::getTempColor(unsigned long & color) const
{
  if (!m_bHasTempColor)
    return false;
  color = m_ulTempColor;
  return true;
}

void CGraphObject::setTempColor(unsigned long color)
{
  m_ulTempColor = color;
  m_bHasTempColor = true;
}

bool CGraphObject::getGroupColor(unsigned long & color) const
{
  if (!m_bHasGroupColor)
    return false;
  color = m_ulGroupColor;
  return true;
}

void CGraphObject::setGroupColor(unsigned long color)
{
  m_ulGroupColor = color;
  m_bHasGroupColor = true;
}
