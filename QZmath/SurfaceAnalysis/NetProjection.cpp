#include "QZmath/SurfaceAnalysis/NetProjection.h"

#include <cmath>

using REmath::Matrix;
using REmath::Point3D;

namespace
{
struct TF_V
{
  double x, y, z;
};
TF_V tf_v(const float * p) { return {p[0], p[1], p[2]}; }
TF_V tf_node(const Matrix<Point3D> & net, int row, int column) { return tf_v(net(row, column).asArray()); }
TF_V operator-(TF_V a, TF_V b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
TF_V operator-(TF_V a) { return {-a.x, -a.y, -a.z}; }
double tf_dot(TF_V a, TF_V b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
TF_V tf_cross(TF_V a, TF_V b)
{
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// The edge from node (row, column) towards the next node along one direction,
// or the reversed edge from the previous one at the border; zero when the
// net has a single node that way.
TF_V tf_forward(const Matrix<Point3D> & net, int row, int column, bool alongColumns)
{
  int const count = alongColumns ? net.cols() : net.rows();
  int const at = alongColumns ? column : row;
  TF_V const here = tf_node(net, row, column);
  if (at + 1 < count)
    return (alongColumns ? tf_node(net, row, column + 1) : tf_node(net, row + 1, column)) - here;
  if (at > 0)
    return here - (alongColumns ? tf_node(net, row, column - 1) : tf_node(net, row - 1, column));
  return {0.0, 0.0, 0.0};
}

TF_V tf_backward(const Matrix<Point3D> & net, int row, int column, bool alongColumns)
{
  int const at = alongColumns ? column : row;
  TF_V const here = tf_node(net, row, column);
  if (at > 0)
    return (alongColumns ? tf_node(net, row, column - 1) : tf_node(net, row - 1, column)) - here;
  return -tf_forward(net, row, column, alongColumns);
}

// Holds a fractional coordinate to [0, count - 1] and splits it into a node
// and a blend towards the next one.
void tf_cell(float x, int count, int & index, double & fraction)
{
  index = 0, fraction = 0.0;
  if (!(x > 0.0f))
    return; // negative or NaN: the first node
  if (x >= static_cast<float>(count - 1))
  {
    index = count - 1;
    return;
  }
  index = static_cast<int>(x);
  fraction = double(x) - index;
  if (fraction < 1e-5)
    fraction = 0.0;
}
} // namespace

double GetNearestNetKnot(const float * p, const Matrix<Point3D> & net, int & column, int & row)
{
  double best = 1e30;
  column = row = 0;
  TF_V const q = tf_v(p);
  for (int r = 0; r < net.rows(); ++r)
    for (int c = 0; c < net.cols(); ++c)
    {
      TF_V const d = tf_node(net, r, c) - q;
      double const d2 = tf_dot(d, d);
      if (d2 < best)
        best = d2, column = c, row = r;
    }
  return best;
}

bool GetNetNormal(const Matrix<Point3D> & net, int column, int row, Point3D & normal, bool sign)
{
  normal = Point3D();
  if (net.rows() < 2 || net.cols() < 2)
    return false;
  TF_V n = tf_cross(tf_forward(net, row, column, true), tf_forward(net, row, column, false));
  if (!sign)
    n = -n;
  double const len = std::sqrt(tf_dot(n, n));
  if (!(len > 0.0))
    return false;
  normal = Point3D(n.x / len, n.y / len, n.z / len);
  return true;
}

void ProjectPointToNet(const float * p, const Matrix<Point3D> & net, double & u, double & v)
{
  int c = 0, r = 0;
  GetNearestNetKnot(p, net, c, r);
  u = c, v = r;
  Point3D nf;
  if (!GetNetNormal(net, c, r, nf, true))
    return;
  TF_V const n = tf_v(nf.asArray());
  TF_V const r0 = tf_v(p) - tf_node(net, r, c);
  TF_V const a = tf_forward(net, r, c, true), b = tf_forward(net, r, c, false);
  TF_V const c1 = tf_backward(net, r, c, true), d = tf_backward(net, r, c, false);
  TF_V const xa = tf_cross(n, a), xb = tf_cross(n, b), xc = tf_cross(n, c1), xd = tf_cross(n, d);
  double const A = tf_dot(r0, xa), B = tf_dot(r0, xb), C = tf_dot(r0, xc), D = tf_dot(r0, xd);
  // A quadrant fits when p lies between its two edges; a zero denominator
  // (a degenerate corner) does not fit.
  auto fits = [](double s1, double den1, double s2, double den2)
  { return den1 != 0.0 && den2 != 0.0 && s1 * den1 >= 0.0 && s2 * den2 >= 0.0; };
  double const bxa = tf_dot(b, xa), axb = tf_dot(a, xb), bxc = tf_dot(b, xc), cxb = tf_dot(c1, xb);
  double const dxc = tf_dot(d, xc), cxd = tf_dot(c1, xd), dxa = tf_dot(d, xa), axd = tf_dot(a, xd);
  if (fits(A, bxa, B, axb))
    u = c + B / axb, v = r + A / bxa;
  else if (fits(C, bxc, B, cxb))
    u = c - B / cxb, v = r + C / bxc;
  else if (fits(C, dxc, D, cxd))
    u = c - D / cxd, v = r - C / dxc;
  else if (fits(A, dxa, D, axd))
    u = c + D / axd, v = r - A / dxa;
}

void getPointOnNet(float u, float v, const Matrix<Point3D> & net, float * result)
{
  if (net.rows() < 1 || net.cols() < 1)
    return;
  int c = 0, r = 0;
  double fu = 0.0, fv = 0.0;
  tf_cell(u, net.cols(), c, fu);
  tf_cell(v, net.rows(), r, fv);
  int const c1 = fu > 0.0 ? c + 1 : c, r1 = fv > 0.0 ? r + 1 : r;
  TF_V const p00 = tf_node(net, r, c), p01 = tf_node(net, r, c1), p10 = tf_node(net, r1, c),
             p11 = tf_node(net, r1, c1);
  double const w00 = (1.0 - fu) * (1.0 - fv), w01 = fu * (1.0 - fv), w10 = (1.0 - fu) * fv, w11 = fu * fv;
  result[0] = static_cast<float>(w00 * p00.x + w01 * p01.x + w10 * p10.x + w11 * p11.x);
  result[1] = static_cast<float>(w00 * p00.y + w01 * p01.y + w10 * p10.y + w11 * p11.y);
  result[2] = static_cast<float>(w00 * p00.z + w01 * p01.z + w10 * p10.z + w11 * p11.z);
}
