#pragma once
// One-variable polynomials and piecewise polynomials: the building blocks of
// the separable form in which the reconstruction kernels are multiplied and
// integrated. A product of two separable functions falls apart into products
// of these, so everything here is written to run in a loop on the caller's
// buffers without allocating once the buffers have grown.

#include <cstddef>
#include <vector>

namespace VolTr
{
/// p(x) = sum c[k] x^k, lowest coefficient first. No coefficients is the zero
/// polynomial of power -1.
class CSingleVarPolynom
{
public:
  CSingleVarPolynom() = default;
  /// Stores the `count` coefficients as given (no trimming of trailing zeros).
  /// A negative count or a null array gives the zero polynomial.
  CSingleVarPolynom(int count, double const * coefficients);
  CSingleVarPolynom(CSingleVarPolynom const &) = default;
  CSingleVarPolynom(CSingleVarPolynom &&) noexcept = default;
  CSingleVarPolynom & operator=(CSingleVarPolynom const &) = default;
  CSingleVarPolynom & operator=(CSingleVarPolynom &&) noexcept = default;
  virtual ~CSingleVarPolynom() = default;

  void assign(int count, double const * coefficients);
  void clear() { m_coeffs.clear(); }

  /// Coefficient count minus one.
  int power() const { return static_cast<int>(m_coeffs.size()) - 1; }
  int getCoeffsNumber() const { return static_cast<int>(m_coeffs.size()); }
  double getCoeff(int k) const { return m_coeffs.at(static_cast<std::size_t>(k)); }
  std::vector<double> const & getCoeffs() const { return m_coeffs; }

  /// Horner's rule from the highest coefficient.
  double eval(double x) const;

  /// A factor of exactly 0.0 empties the list.
  CSingleVarPolynom & operator*=(double x);
  /// out = this * other. `other` may be this object; `out` may alias either
  /// operand (then a temporary is used).
  void multiply(CSingleVarPolynom * out, CSingleVarPolynom const & other) const;
  void makeDerivative(CSingleVarPolynom * out) const;
  /// The primitive with constant term 0.
  void makePrimitive(CSingleVarPolynom * out) const;
  /// The integral over [a, b] through the primitive built in `buffer`.
  double integrateOnIntervalWithBuffer(double a, double b, CSingleVarPolynom * buffer) const;

  /// p(x) becomes p(s x). A zero factor leaves exactly the constant term.
  void scaleArgument(double s);
  /// p(x) becomes p(x + a), in place.
  void substituteArgPlusConst(double a);

  bool operator==(CSingleVarPolynom const & other) const { return m_coeffs == other.m_coeffs; }
  bool operator!=(CSingleVarPolynom const & other) const { return !(*this == other); }

  /// Empty, or the last coefficient is not 0.0.
  bool checkClassInvariants() const;

private:
  std::vector<double> m_coeffs;
};

/// A piecewise polynomial of one variable on [knots[0], knots[last]), about a
/// shift: f(x) = piece_i(x - argShift) for knots[i] <= x - argShift < knots[i+1].
/// Shifting and scaling move the shift and the knots and leave coefficients
/// alone wherever the value allows.
class CSingleVarLimitedPolynom
{
public:
  CSingleVarLimitedPolynom() = default;
  /// Throws a std::exception with the text "VolTr::CSingleVarLimitedPolynom:
  /// ctor fails" on arguments that `assign` refuses.
  CSingleVarLimitedPolynom(double argShift, int pieceCount, CSingleVarPolynom const * pieces, int knotCount,
                           double const * knots);
  /// Copies the value; the spare pieces (see below) stay behind.
  CSingleVarLimitedPolynom(CSingleVarLimitedPolynom const & other);
  CSingleVarLimitedPolynom(CSingleVarLimitedPolynom &&) noexcept = default;
  /// Reuses the storage of this object's pieces.
  CSingleVarLimitedPolynom & operator=(CSingleVarLimitedPolynom const & other);
  CSingleVarLimitedPolynom & operator=(CSingleVarLimitedPolynom &&) noexcept = default;
  virtual ~CSingleVarLimitedPolynom() = default;

  /// Replaces everything and returns true; returns false and changes nothing
  /// unless pieceCount >= 1, knotCount == pieceCount + 1, both arrays are given
  /// and the knots ascend strictly.
  bool assign(double argShift, int pieceCount, CSingleVarPolynom const * pieces, int knotCount,
              double const * knots);
  /// Shift 0, no pieces, no knots.
  void clear();

  double eval(double x) const;

  bool empty() const { return m_pieces.empty(); }
  /// The greatest piece power, -1 without pieces.
  int maxPower() const;
  double getArgShift() const { return m_argShift; }
  int getPiecesNumber() const { return static_cast<int>(m_pieces.size()); }
  CSingleVarPolynom const & getPiece(int i) const { return m_pieces.at(static_cast<std::size_t>(i)); }
  int getKnotsNumber() const { return static_cast<int>(m_knots.size()); }
  /// Knots are in the shifted variable x - argShift.
  double getKnot(int i) const { return m_knots.at(static_cast<std::size_t>(i)); }
  /// knots[0] + argShift, 0.0 without knots.
  double getLeftBound() const;
  /// knots[last] + argShift, 0.0 without knots.
  double getRightBound() const;

  /// The integral over the support; `buffer` receives the primitives.
  double integrateWithBuffer(CSingleVarPolynom * buffer) const;

  /// f(x) becomes f(s x).
  void scaleArgument(double s);
  /// f(x) becomes f(x + a): only the shift moves.
  void substituteArgPlusConst(double a) { m_argShift -= a; }
  /// The same function re-expressed about the shift `s`.
  void changeShift(double s);
  CSingleVarLimitedPolynom & operator*=(double x);

  CSingleVarLimitedPolynom operator*(CSingleVarLimitedPolynom const & other) const;
  /// The product on the intersection of the two supports.
  void multiply(CSingleVarLimitedPolynom * out, CSingleVarLimitedPolynom const & other) const;
  /// As `multiply`, with `shiftBuffer` holding the operand that must be moved
  /// to the other's shift: reused across calls, it keeps the product free of
  /// allocations once `out` and the buffer have their sizes.
  void multiplyWithBuffer(CSingleVarLimitedPolynom * out, CSingleVarLimitedPolynom const & other,
                          CSingleVarLimitedPolynom * shiftBuffer) const;
  /// Same shift and knots, every piece differentiated (a constant piece
  /// becomes an empty one, that is zero).
  void makeDerivative(CSingleVarLimitedPolynom * out) const;

  bool operator==(CSingleVarLimitedPolynom const & other) const;
  bool operator!=(CSingleVarLimitedPolynom const & other) const { return !(*this == other); }

  /// No pieces and no knots, or knots = pieces + 1 ascending strictly.
  bool checkClassInvariants() const;

private:
  friend class CProductPolynom;

  void multiplyAligned(CSingleVarLimitedPolynom * out, CSingleVarLimitedPolynom const & other) const;
  /// `clear` that parks the pieces among the spares.
  void clearKeepingStorage();
  /// Grows or shrinks the piece list to n through the spares.
  void resizePieces(std::size_t n);

  std::vector<CSingleVarPolynom> m_pieces;
  std::vector<double> m_knots;
  double m_argShift = 0.0;
  // Pieces dropped when a reused output got shorter, kept with the capacity
  // of their coefficients for the next longer result: products into the same
  // buffers then stop allocating even when their piece counts vary. Not part
  // of the value: copies and comparisons ignore them.
  std::vector<CSingleVarPolynom> m_sparePieces;
};

CSingleVarLimitedPolynom operator*(double x, CSingleVarLimitedPolynom const & f);
} // namespace VolTr
