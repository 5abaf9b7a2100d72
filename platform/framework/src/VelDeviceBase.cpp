#include "vel/VelDeviceBase.h"

namespace vel {

VelDeviceBase::~VelDeviceBase() = default;
bool VelDeviceBase::AnswersFailedTransfers() const {
  return false;
}
bool VelDeviceBase::WantsLeanReplies() const {
  return false;
}
bool VelDeviceBase::PayloadHeaderLengthCounts() const {
  return false;
}
bool VelDeviceBase::WantsNewestPictures() const {
  return false;
}

}  // namespace vel
