#pragma once
// The base class of an object that knows the extent of a model along three
// axes, with a default model size of 1 along each that a subclass may
// override when asked. The virtual operations are declared in the order of
// the class's published layout.

class IModelSizer
{
private:
  virtual void OnGetLimits(double * limits) = 0;
  virtual void OnGetLinearLimits(double const * direction, double * limits) = 0;
  virtual void OnUpdateLimits() = 0;
  virtual void OnGetModelSize(double & /*x*/, double & /*y*/, double & /*z*/) const {}
  virtual void OnSetModelSize(double /*x*/, double /*y*/, double /*z*/) {}
  virtual void OnResetModelSizeDefault() {}

public:
  virtual ~IModelSizer() = default;

  /// The limits of the model along a direction given by `direction`.
  virtual void GetLinearLimits(double const * direction, double * limits)
  {
    OnGetLinearLimits(direction, limits);
  }
  /// Recomputes the limits after the model changed.
  virtual void updateLimits() { OnUpdateLimits(); }

  /// The model's limits, as the subclass lays them out in `limits`.
  void GetLimits(double * limits) { OnGetLimits(limits); }

  /// The default size (1, 1, 1 unless set), which the subclass may then
  /// overwrite.
  void getModelSize(double & x, double & y, double & z) const;
  /// Stores the default size and tells the subclass.
  void setModelSize(double x, double y, double z);
  /// Back to 1, 1, 1, and the subclass is told.
  void resetModelSize();

protected:
  IModelSizer() = default;
  IModelSizer(IModelSizer const &) = default;
  IModelSizer & operator=(IModelSizer const &) = default;

private:
  /// The default fields alone, without telling the subclass.
  void GetModelSizeDefault(double & x, double & y, double & z) const;
  void SetModelSizeDefault(double x, double y, double z);
  void ResetModelSizeDefault();

  double m_dDefSizeX = 1.0;
  double m_dDefSizeY = 1.0;
  double m_dDefSizeZ = 1.0;
};
