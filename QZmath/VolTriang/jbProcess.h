#pragma once
// A continuation polygoniser of implicit functions. From a start point it walks
// a lattice of cubes along the surface, cuts each cube into six tetrahedra and
// finds the surface vertices by bisection along the lattice edges.
//
// The records below are plain data on calloc/free: the polygoniser makes
// millions of small records whose lifetime is one call.

#include <atomic>
#include <cstdint>

#include "QZmath/Foundation/Functor.h"
#include "QZmath/Foundation/Point3D.h"

namespace VolTr
{
using REmath::Point3D_d;

struct jbVertex
{
  Point3D_d position;
  Point3D_d normal;
};

struct jbVertices
{
  int count;
  int capacity;
  jbVertex * items;

  /// Appends a vertex (capacity starts at 10 and doubles); returns its index.
  /// Throws std::bad_alloc when memory is exhausted.
  int add(jbVertex const & v);
};

struct jbTest
{
  Point3D_d point;
  double value;
  int ok;
};

struct jbCornerlist
{
  int i, j, k;
  int flag;
  double value;
  jbCornerlist * next;
};

/// A corner of a deferred walk that the solver may value ahead of the walk,
/// on its own threads: `state` goes from 0 (no value) to 1 (one thread is
/// valuing it) to 2 (`corner.value` holds the lattice function's value).
struct jbAheadCorner
{
  jbCornerlist corner;
  std::atomic<int> state;
};

struct jbCenterlist
{
  int i, j, k;
  jbCenterlist * next;
};

struct jbEdgelist
{
  int i1, j1, k1;
  int i2, j2, k2;
  int vertex;
  jbEdgelist * next;
};

/// Corner n lies at (i + bit2(n), j + bit1(n), k + bit0(n)).
struct jbCube
{
  int i, j, k;
  jbCornerlist * corners[8];
};

struct jbCubes
{
  jbCube cube;
  jbCubes * next;
};

/// The scalar field: positive on one side of the surface, not positive on the
/// other. A non-null flag receives 0 for a usable point, non-zero for a point
/// the walk must not cross.
using jbFunction = REmath::Functor2<double, Point3D_d const &, int *>;
/// The sink: three vertex indices and the vertex list of the moment. A result
/// of 0 stops the polygoniser.
using jbTriangleProcessor = REmath::Functor4<int, int, int, int, jbVertices>;

/// A vertex whose position the walk leaves for later: the lattice edge it lies
/// on, from the corner of `value1` to the other, as points and as lattice
/// indices.
struct jbEdgeJob
{
  Point3D_d p1;
  Point3D_d p2;
  double value1;
  double value2; // the walk's function at p2, as value1 at p1
  int from[3];
  int to[3];
};

/// The walk's function told about the lattice: a deferred walk passes it the
/// lattice once the start is known and asks it for the corners by index, so
/// that it can tabulate what the corners share.
class jbLatticeFunction
{
public:
  virtual ~jbLatticeFunction() = default;
  /// The point of index (i, j, k) lies at start - (index - 0.5) * size on
  /// each axis; indices stay within bounds + 1 of 0.
  virtual void setLattice(Point3D_d const & start, double size, int const * bounds) = 0;
  /// The walk's function at the lattice point (i, j, k), whose position is
  /// `p`, with its flag. Only the side of the result is used (above 0 or
  /// not), so it may be any value on the function's side.
  virtual double corner(int i, int j, int k, Point3D_d const & p, int * flag) = 0;
  /// Whether `corner` can set a flag. A walk whose corners never flag needs
  /// a corner's value only when it visits one of its cubes, so a solver may
  /// value corners ahead.
  virtual bool cornersFlagged() const { return true; }
};

/// Computes deferred vertices in batches, possibly on other threads while the
/// walk goes on. For each job, `out[k].position` must become the point
/// `converge(p1, p2, value1)` gives with the walk's function; `out[k].normal`
/// is passed on to the sink as it is left (zero on entry).
class jbVertexSolver
{
public:
  virtual ~jbVertexSolver() = default;
  /// The lattice of the walk, as for `jbLatticeFunction`, before the first
  /// batch.
  virtual void setLattice(Point3D_d const & /*start*/, double /*size*/, int const * /*bounds*/) {}
  /// Starts a batch; the arrays stay valid until `wait` returns. One batch
  /// at a time.
  virtual void submit(jbEdgeJob const * jobs, jbVertex * out, int count) = 0;
  /// Returns when the submitted batch is complete; a failure of the batch is
  /// thrown here.
  virtual void wait() = 0;
  /// Whether the solver values corners ahead of the walk (on threads other
  /// than the caller's, with the lattice function's values, bit for bit).
  virtual bool valuesCorners() const { return false; }
  /// Corners to value ahead, oldest first. A thread takes one by moving its
  /// state from 0 to 1 and leaves it at 2 with the value (or at 0 again when
  /// valuing fails); the walk does the same for a corner it needs first.
  virtual void offerCorners(jbAheadCorner * const * /*corners*/, int /*count*/) {}
  /// Forgets the corners offered and returns when no thread values one any
  /// more: their records may go.
  virtual void withdrawCorners() {}
};

struct jbDeferred;

class jbProcess
{
public:
  static const int CENTERS_TABLE_SIZE = 32768;
  static const int CORNERS_TABLE_SIZE = 32768;
  static const int EDGES_TABLE_SIZE = 65536;

  jbProcess();

  /// Walks the surface component through the start point. Returns 0 when done,
  /// 1 when no point on either side of the surface was found around `start`,
  /// 2 when the sink refused a triangle. `bounds` limits the cube indices per
  /// axis (three ints). Exceptions of the function or the sink pass through;
  /// the polygoniser's own memory is freed on the way.
  int polygonize(jbFunction & function, double size, int * bounds, Point3D_d start,
                 jbTriangleProcessor & triangleProcessor);
  /// As `polygonize`, with the same corners, vertices, triangles and order,
  /// but the bisection of the crossed edges is left to `solver`: the walk
  /// collects about `batchVertices` new vertices with the triangles that use
  /// them and submits them to the solver; while the solver works it collects
  /// the next batch, then hands the first batch's triangles to the sink in
  /// their order. The function is then called for the corners and
  /// the start only, and with `lattice` for the start only (the corners go
  /// to `lattice`); the sink sees what `polygonize` would show it. The
  /// walk's corners, cubes and edges are then kept in tables of its own
  /// (packed lattice keys), and the public tables stay null.
  int polygonizeDeferred(jbFunction & function, double size, int * bounds, Point3D_d start,
                         jbTriangleProcessor & triangleProcessor, jbVertexSolver & solver, int batchVertices,
                         jbLatticeFunction * lattice = nullptr);
  /// Visits every cube of the box from `low` to `high`; returns 0.
  int marchingcubes(jbFunction & function, double size, Point3D_d low, Point3D_d high,
                    jbTriangleProcessor & triangleProcessor);

  // The steps of the walk, public for callers that drive it themselves.
  jbTest find(int sign, Point3D_d from);
  Point3D_d converge(Point3D_d p1, Point3D_d p2, double value1);
  int dotet(jbCube * cube, int a, int b, int c, int d);
  void testface(int i, int j, int k, jbCube * old, int face, int c1, int c2, int c3, int c4);
  jbCornerlist * setcorner(int i, int j, int k);
  int setcenter(int i, int j, int k);
  void setedge(int i1, int j1, int k1, int i2, int j2, int k2, int vertex);
  int getedge(int i1, int j1, int k1, int i2, int j2, int k2);
  int vertid(jbCornerlist * c1, jbCornerlist * c2);
  Point3D_d setpoint(int i, int j, int k) const;
  void freeprocess();

  /// The private random sequence: the classic 15-bit linear congruential
  /// generator, so that runs are repeatable and threads do not interfere.
  void seed(std::uint32_t s) { m_randState = s; }
  int nextRandom()
  {
    m_randState = m_randState * 214013u + 2531011u;
    return static_cast<int>((m_randState >> 16) & 0x7fff);
  }

  jbVertices const & getVertices() const { return vertices; }

private:
  void begin(jbFunction & function, double size, jbTriangleProcessor & triangleProcessor);
  void freeCubes();
  void releaseAll();
  int walk();
  int emitTriangle(int a, int b, int c);
  int flushDeferred(bool last);
  int emitDeferred();
  void valued(jbCornerlist * corner);

public:
  jbFunction * function;
  jbTriangleProcessor * triangleProcessor;
  double size;
  double delta;
  int bounds[3];
  Point3D_d start;
  jbCubes * cubes;
  jbVertices vertices;
  jbCenterlist ** centers;
  jbCornerlist ** corners;
  jbEdgelist ** edges;

private:
  std::uint32_t m_randState;
  /// The pending vertices and triangles of a deferred walk; null otherwise.
  jbDeferred * m_deferred;
  /// The bytes mapped for the vertex list of a deferred walk, which holds it
  /// in pages of its own rather than on the heap; 0 when on the heap.
  std::size_t m_mappedVertexBytes = 0;
  void addVertexRoom();
};
} // namespace VolTr
