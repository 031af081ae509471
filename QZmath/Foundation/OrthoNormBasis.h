#pragma once
// A frame in space, held as the pair of maps between its coordinates and
// world coordinates: back (basis -> world, the axes e0, e1, e2 as columns of
// its matrix and the origin as its shift) and forth (world -> basis, the axes
// as rows). Keeping both spares an inversion per transformed point.
//
// The builders normalise with no guard: a zero or parallel input vector gives
// non-finite axes.

#include "QZmath/Foundation/LinearTransform.h"
#include "QZmath/Foundation/Point3D.h"

class COrthoNormBasis
{
public:
  /// The world frame.
  COrthoNormBasis();

  const RElinearTransform & getBackCoordTransform() const { return m_back; }
  const RElinearTransform & getForthCoordTransform() const { return m_forth; }
  REmath::Point3D_d getOrigin() const;
  /// Axis i, read as row i of forth's matrix.
  REmath::Point3D_d getE(int i) const;
  REmath::Point3D_d getE0() const { return getE(0); }
  REmath::Point3D_d getE1() const { return getE(1); }
  REmath::Point3D_d getE2() const { return getE(2); }

  /// Moves the frame; the axes stay. forth's shift follows back's matrix.
  void setOrigin(const REmath::Point3D_d & origin);
  COrthoNormBasis getMovedTo(const REmath::Point3D_d & origin) const;

  /// forth after back is the identity (float tolerance) and the axes are of
  /// unit length (double tolerance).
  bool isOrthoNorm() const;
  /// As isOrthoNorm, and e0 . (e1 x e2) > 0.
  bool isOrthoNormRightHand() const;

  /// The world frame seen from this one: back and forth exchanged.
  COrthoNormBasis getWorldBasisInLocalCoords() const;

  REmath::Point3D_d transformCoordsToBasis(const REmath::Point3D_d & p) const;
  REmath::Point3D_d transformCoordsFromBasis(const REmath::Point3D_d & p) const;
  /// The projection of p on the plane of e0 and e1 through the origin, in
  /// world coordinates.
  REmath::Point3D_d projectPointToXYPlane(const REmath::Point3D_d & p) const;

  static const COrthoNormBasis & Identity();
  static const REmath::Point3D_d & IdentityE0();
  static const REmath::Point3D_d & IdentityE1();
  static const REmath::Point3D_d & IdentityE2();

  /// The axes as given. An orthonormal set gets the transpose as inverse, any
  /// other regular set a true inverse.
  static COrthoNormBasis buildByOrthsAndOrigin(const REmath::Point3D_d & e0, const REmath::Point3D_d & e1,
                                               const REmath::Point3D_d & e2,
                                               const REmath::Point3D_d & origin);
  /// e0, e1 as given; e2 = e0 x e1 normalised.
  static COrthoNormBasis buildRightHandByE0E1AndOrigin(const REmath::Point3D_d & e0,
                                                       const REmath::Point3D_d & e1,
                                                       const REmath::Point3D_d & origin);
  /// e0 along V0; e1 in the plane of V0 and V1, on the side of V1.
  static COrthoNormBasis buildRightHandByV0V1AndOrigin(const REmath::Point3D_d & v0,
                                                       const REmath::Point3D_d & v1,
                                                       const REmath::Point3D_d & origin);
  /// e2 along V2; e0 in the plane of V2 and V0, on the side of V0.
  static COrthoNormBasis buildRightHandByV2V0AndOrigin(const REmath::Point3D_d & v2,
                                                       const REmath::Point3D_d & v0,
                                                       const REmath::Point3D_d & origin);
  /// e2 along V2, the other axes from the x axis (the y axis when V2 is
  /// within about 25 degrees of x).
  static COrthoNormBasis buildAnyRightHandByV2AndOrigin(const REmath::Point3D_d & v2,
                                                        const REmath::Point3D_d & origin);

private:
  RElinearTransform m_back;
  RElinearTransform m_forth;
};
