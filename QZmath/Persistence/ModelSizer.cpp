#include "QZmath/Persistence/ModelSizer.h"

void IModelSizer::getModelSize(double & x, double & y, double & z) const
{
  GetModelSizeDefault(x, y, z);
  OnGetModelSize(x, y, z);
}

void IModelSizer::setModelSize(double x, double y, double z)
{
  SetModelSizeDefault(x, y, z);
  OnSetModelSize(x, y, z);
}

void IModelSizer::resetModelSize()
{
  ResetModelSizeDefault();
  OnResetModelSizeDefault();
}

void IModelSizer::GetModelSizeDefault(double & x, double & y, double & z) const
{
  x = m_dDefSizeX;
  y = m_dDefSizeY;
  z = m_dDefSizeZ;
}

void IModelSizer::SetModelSizeDefault(double x, double y, double z)
{
  m_dDefSizeX = x;
  m_dDefSizeY = y;
  m_dDefSizeZ = z;
}

void IModelSizer::ResetModelSizeDefault() { SetModelSizeDefault(1.0, 1.0, 1.0); }
