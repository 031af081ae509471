#include "QZmath/Foundation/Point3D.h"

#include <vector>

namespace
{
template <class T> double normalizeGuarded(T * v)
{
  double const len = std::sqrt(static_cast<double>(v[0]) * v[0] + static_cast<double>(v[1]) * v[1] +
                               static_cast<double>(v[2]) * v[2]);
  if (len == 0.0)
    return 0.0;
  double const inv = 1.0 / len;
  for (int i = 0; i < 3; ++i)
    v[i] = static_cast<T>(v[i] * inv);
  return len;
}
} // namespace

double NormalizeVector(float * v) { return normalizeGuarded(v); }
double NormalizeVector(double * v) { return normalizeGuarded(v); }
// Callers pick this form to skip the zero test; keeping it costs one compare
// and spares them a division by zero.
double NormalizeVectorNoZeroCheck(float * v) { return normalizeGuarded(v); }
double NormalizeVectorNoZeroCheck(double * v) { return normalizeGuarded(v); }

namespace REmath
{
template class CPtVecAdapder<std::vector<Point3D>>;
}
