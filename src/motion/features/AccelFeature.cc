#include "motion/features/AccelFeature.h"

namespace orvane {

namespace {

// Signal ids of the fields, per block and value type. The ids are checked against the
// catalogue when this file compiles.
template <typename T>
struct FieldId {
  SignalEnum id;
  T AccelFeature::*field;
};
using F = AccelFeature;
using DoubleId = FieldId<double>;
using FloatId = FieldId<float>;

constexpr DoubleId kLastSampleDoubles[] = {
    {SignalEnum::id(114), &F::attitudeYawCos},
    {SignalEnum::id(117), &F::attitudePitch},
    {SignalEnum::id(215), &F::attitudeRoll},
    {SignalEnum::id(216), &F::attitudeYaw},
    {SignalEnum::id(118), &F::attitudeRollCos},
    {SignalEnum::id(147), &F::attitudeYawSin},
    {SignalEnum::id(168), &F::attitudeRollSin},
    {SignalEnum::id(217), &F::gravityLastX},
    {SignalEnum::id(218), &F::gravityLastY},
    {SignalEnum::id(219), &F::gravityLastZ},
    {SignalEnum::id(958), &F::instantGyroMagnitude},
    {SignalEnum::id(959), &F::instantUserAccelMagnitude},
    {SignalEnum::id(960), &F::instantTiltAngleFromVertical},
    {SignalEnum::id(961), &F::instantGravityMagnitude},
    {SignalEnum::id(962), &F::instantGravityDeviation},
    {SignalEnum::id(966), &F::instantAccelGravityAngle},
    {SignalEnum::id(967), &F::instantCrossProductMagnitude},
    {SignalEnum::id(968), &F::instantDotProductNormalized},
    {SignalEnum::id(969), &F::instantMotionCoherenceScore},
    {SignalEnum::id(970), &F::instantAxisEnergyRatioXY},
    {SignalEnum::id(971), &F::instantAxisEnergyRatioXZ},
    {SignalEnum::id(972), &F::instantAxisEnergyRatioYZ},
    {SignalEnum::id(973), &F::instantSphericalRadius},
    {SignalEnum::id(974), &F::instantSphericalTheta},
    {SignalEnum::id(975), &F::instantSphericalPhi},
    {SignalEnum::id(976), &F::instantAttitudePitchCos},
    {SignalEnum::id(977), &F::instantHorizontalAccelComponent},
    {SignalEnum::id(978), &F::instantVerticalAccelComponent},
    {SignalEnum::id(979), &F::instantAccelGyroRatio},
    {SignalEnum::id(980), &F::instantGyroAlongGravity},
    {SignalEnum::id(981), &F::instantGyroHorizontalComponent},
    {SignalEnum::id(982), &F::instantImpliedRotationRadius},
    {SignalEnum::id(986), &F::instantAccelerationX},
    {SignalEnum::id(987), &F::instantAccelerationY},
    {SignalEnum::id(988), &F::instantAccelerationZ},
    {SignalEnum::id(989), &F::instantRotationRateX},
    {SignalEnum::id(990), &F::instantRotationRateY},
    {SignalEnum::id(991), &F::instantRotationRateZ},
};

constexpr FieldId<int64_t> kLastSampleInts[] = {
    {SignalEnum::id(963), &F::instantPrimaryGravityAxis},
    {SignalEnum::id(964), &F::instantDominantMotionAxisAccel},
    {SignalEnum::id(965), &F::instantDominantMotionAxisGyro},
};

constexpr FieldId<bool> kLastSampleBools[] = {
    {SignalEnum::id(983), &F::instantIsFaceDown},
    {SignalEnum::id(984), &F::instantLyingFlatAnyOrientation},
    {SignalEnum::id(985), &F::instantLyingFlatFaceUp},
};

constexpr DoubleId kValidWindowDoubles[] = {
    {SignalEnum::id(113), &F::meanAccelTotal},
    {SignalEnum::id(150), &F::meanGyroTotal},
    {SignalEnum::id(126), &F::meanMagnitudeAccel},
    {SignalEnum::id(138), &F::meanAccelXNonFabbed},
    {SignalEnum::id(159), &F::meanAccelYNonFabbed},
    {SignalEnum::id(166), &F::meanAccelZNonFabbed},
    {SignalEnum::id(127), &F::meanGyroXNonFabbed},
    {SignalEnum::id(167), &F::meanGyroYNonFabbed},
    {SignalEnum::id(111), &F::meanGyroZNonFabbed},
    {SignalEnum::id(119), &F::meanMagnitudeGyro},
    {SignalEnum::id(141), &F::medianAccelTotal},
    {SignalEnum::id(122), &F::medianGyroTotal},
    {SignalEnum::id(133), &F::medianMagnitudeAccel},
    {SignalEnum::id(156), &F::medianMagnitudeGyro},
    {SignalEnum::id(224), &F::maxAccelMagnitude},
    {SignalEnum::id(223), &F::maxGyroMagnitude},
    {SignalEnum::id(143), &F::maxAccelValue},
    {SignalEnum::id(139), &F::maxGyroValue},
    {SignalEnum::id(125), &F::minAccelValue},
    {SignalEnum::id(120), &F::minGyroValue},
    {SignalEnum::id(220), &F::spanGyroX},
    {SignalEnum::id(221), &F::spanGyroY},
    {SignalEnum::id(222), &F::spanGyroZ},
    {SignalEnum::id(163), &F::avgDeltaAccel},
    {SignalEnum::id(124), &F::avgDeltaGyro},
    {SignalEnum::id(135), &F::signalMagnitudeAreaAccel},
    {SignalEnum::id(115), &F::signalMagnitudeAreaGyro},
    {SignalEnum::id(134), &F::noNoiseLowAccelAll},
    {SignalEnum::id(103), &F::noNoiseLowGyroAll},
    {SignalEnum::id(105), &F::noNoiseMediumAccelAll},
    {SignalEnum::id(170), &F::noNoiseMediumGyroAll},
    {SignalEnum::id(132), &F::noNoiseHighAccelAll},
    {SignalEnum::id(131), &F::noNoiseHighGyroAll},
    {SignalEnum::id(144), &F::varianceAccelX},
    {SignalEnum::id(101), &F::varianceAccelY},
    {SignalEnum::id(161), &F::varianceAccelZ},
    {SignalEnum::id(136), &F::varianceGyroX},
    {SignalEnum::id(102), &F::varianceGyroY},
    {SignalEnum::id(142), &F::varianceGyroZ},
    {SignalEnum::id(162), &F::skewnessAccelX},
    {SignalEnum::id(169), &F::skewnessAccelY},
    {SignalEnum::id(129), &F::skewnessAccelZ},
    {SignalEnum::id(146), &F::skewnessGyroX},
    {SignalEnum::id(152), &F::skewnessGyroY},
    {SignalEnum::id(130), &F::skewnessGyroZ},
    {SignalEnum::id(100), &F::kurtosisAccelX},
    {SignalEnum::id(148), &F::kurtosisAccelY},
    {SignalEnum::id(107), &F::kurtosisAccelZ},
    {SignalEnum::id(149), &F::kurtosisGyroX},
    {SignalEnum::id(116), &F::kurtosisGyroY},
    {SignalEnum::id(157), &F::kurtosisGyroZ},
    {SignalEnum::id(171), &F::percentile10AccelTotal},
    {SignalEnum::id(172), &F::percentile25AccelTotal},
    {SignalEnum::id(173), &F::percentile50AccelTotal},
    {SignalEnum::id(174), &F::percentile75AccelTotal},
    {SignalEnum::id(175), &F::percentile90AccelTotal},
    {SignalEnum::id(176), &F::percentile10GyroTotal},
    {SignalEnum::id(177), &F::percentile25GyroTotal},
    {SignalEnum::id(178), &F::percentile50GyroTotal},
    {SignalEnum::id(179), &F::percentile75GyroTotal},
    {SignalEnum::id(180), &F::percentile90GyroTotal},
    {SignalEnum::id(181), &F::percentile10AccelMagnitude},
    {SignalEnum::id(182), &F::percentile25AccelMagnitude},
    {SignalEnum::id(183), &F::percentile50AccelMagnitude},
    {SignalEnum::id(184), &F::percentile75AccelMagnitude},
    {SignalEnum::id(185), &F::percentile90AccelMagnitude},
    {SignalEnum::id(186), &F::percentile10GyroMagnitude},
    {SignalEnum::id(187), &F::percentile25GyroMagnitude},
    {SignalEnum::id(188), &F::percentile50GyroMagnitude},
    {SignalEnum::id(189), &F::percentile75GyroMagnitude},
    {SignalEnum::id(190), &F::percentile90GyroMagnitude},
    {SignalEnum::id(900), &F::fftDominantFreqAccelMagnitude},
    {SignalEnum::id(901), &F::fftDominantFreqGyroMagnitude},
    {SignalEnum::id(902), &F::fftPeakAmplitudeAccelMagnitude},
    {SignalEnum::id(903), &F::fftPeakAmplitudeGyroMagnitude},
    {SignalEnum::id(904), &F::fftTotalEnergyAccelMagnitude},
    {SignalEnum::id(905), &F::fftTotalEnergyGyroMagnitude},
    {SignalEnum::id(906), &F::fftEntropyAccelMagnitude},
    {SignalEnum::id(907), &F::fftEntropyGyroMagnitude},
    {SignalEnum::id(908), &F::fftSpectralCentroidAccelMagnitude},
    {SignalEnum::id(909), &F::fftSpectralCentroidGyroMagnitude},
    {SignalEnum::id(910), &F::fftSpectralRolloffAccelMagnitude},
    {SignalEnum::id(911), &F::fftSpectralRolloffGyroMagnitude},
    {SignalEnum::id(912), &F::fftBandEnergyLowAccelMagnitude},
    {SignalEnum::id(913), &F::fftBandEnergyMidAccelMagnitude},
    {SignalEnum::id(914), &F::fftBandEnergyHighAccelMagnitude},
    {SignalEnum::id(915), &F::fftBandEnergyLowGyroMagnitude},
    {SignalEnum::id(916), &F::fftBandEnergyMidGyroMagnitude},
    {SignalEnum::id(917), &F::fftBandEnergyHighGyroMagnitude},
    {SignalEnum::id(918), &F::meanJerkAccelMagnitude},
    {SignalEnum::id(919), &F::meanJerkGyroMagnitude},
    {SignalEnum::id(920), &F::varianceJerkAccelMagnitude},
    {SignalEnum::id(921), &F::varianceJerkGyroMagnitude},
    {SignalEnum::id(922), &F::maxJerkAccelMagnitude},
    {SignalEnum::id(923), &F::maxJerkGyroMagnitude},
    {SignalEnum::id(926), &F::correlationAccelXY},
    {SignalEnum::id(927), &F::correlationAccelXZ},
    {SignalEnum::id(928), &F::correlationAccelYZ},
    {SignalEnum::id(929), &F::correlationGyroXY},
    {SignalEnum::id(930), &F::correlationGyroXZ},
    {SignalEnum::id(931), &F::correlationGyroYZ},
    {SignalEnum::id(932), &F::correlationAccelGyroMagnitude},
    {SignalEnum::id(935), &F::dominantAxisEnergyRatioAccel},
    {SignalEnum::id(936), &F::dominantAxisEnergyRatioGyro},
    {SignalEnum::id(937), &F::axisEnergyRatioAccelXY},
    {SignalEnum::id(938), &F::axisEnergyRatioAccelXZ},
    {SignalEnum::id(939), &F::axisEnergyRatioAccelYZ},
    {SignalEnum::id(940), &F::axisEnergyRatioGyroXY},
    {SignalEnum::id(941), &F::axisEnergyRatioGyroXZ},
    {SignalEnum::id(942), &F::axisEnergyRatioGyroYZ},
    {SignalEnum::id(951), &F::shannonEntropyAccelMagnitude},
    {SignalEnum::id(952), &F::shannonEntropyGyroMagnitude},
    {SignalEnum::id(955), &F::permutationEntropyAccelMagnitude},
    {SignalEnum::id(956), &F::permutationEntropyGyroMagnitude},
};

constexpr FloatId kValidWindowFloats[] = {
    {SignalEnum::id(164), &F::noNoiseLowAccelNumberOfEntries},
    {SignalEnum::id(109), &F::noNoiseLowGyroNumberOfEntries},
    {SignalEnum::id(154), &F::noNoiseMediumAccelNumberOfEntries},
    {SignalEnum::id(112), &F::noNoiseMediumGyroNumberOfEntries},
    {SignalEnum::id(158), &F::noNoiseHighAccelNumberOfEntries},
    {SignalEnum::id(155), &F::noNoiseHighGyroNumberOfEntries},
    {SignalEnum::id(193), &F::zeroCrossingsAccelXVeryLow},
    {SignalEnum::id(108), &F::zeroCrossingsAccelXLow},
    {SignalEnum::id(199), &F::zeroCrossingsAccelXMedium},
    {SignalEnum::id(160), &F::zeroCrossingsAccelXHigh},
    {SignalEnum::id(205), &F::zeroCrossingsAccelXVeryHigh},
    {SignalEnum::id(194), &F::zeroCrossingsAccelYVeryLow},
    {SignalEnum::id(151), &F::zeroCrossingsAccelYLow},
    {SignalEnum::id(200), &F::zeroCrossingsAccelYMedium},
    {SignalEnum::id(121), &F::zeroCrossingsAccelYHigh},
    {SignalEnum::id(206), &F::zeroCrossingsAccelYVeryHigh},
    {SignalEnum::id(195), &F::zeroCrossingsAccelZVeryLow},
    {SignalEnum::id(165), &F::zeroCrossingsAccelZLow},
    {SignalEnum::id(201), &F::zeroCrossingsAccelZMedium},
    {SignalEnum::id(153), &F::zeroCrossingsAccelZHigh},
    {SignalEnum::id(207), &F::zeroCrossingsAccelZVeryHigh},
    {SignalEnum::id(196), &F::zeroCrossingsGyroXVeryLow},
    {SignalEnum::id(123), &F::zeroCrossingsGyroXLow},
    {SignalEnum::id(202), &F::zeroCrossingsGyroXMedium},
    {SignalEnum::id(137), &F::zeroCrossingsGyroXHigh},
    {SignalEnum::id(208), &F::zeroCrossingsGyroXVeryHigh},
    {SignalEnum::id(197), &F::zeroCrossingsGyroYVeryLow},
    {SignalEnum::id(104), &F::zeroCrossingsGyroYLow},
    {SignalEnum::id(203), &F::zeroCrossingsGyroYMedium},
    {SignalEnum::id(145), &F::zeroCrossingsGyroYHigh},
    {SignalEnum::id(209), &F::zeroCrossingsGyroYVeryHigh},
    {SignalEnum::id(198), &F::zeroCrossingsGyroZVeryLow},
    {SignalEnum::id(110), &F::zeroCrossingsGyroZLow},
    {SignalEnum::id(204), &F::zeroCrossingsGyroZMedium},
    {SignalEnum::id(140), &F::zeroCrossingsGyroZHigh},
    {SignalEnum::id(210), &F::zeroCrossingsGyroZVeryHigh},
    {SignalEnum::id(924), &F::jerkZeroCrossingsAccelMagnitude},
    {SignalEnum::id(925), &F::jerkZeroCrossingsGyroMagnitude},
    {SignalEnum::id(933), &F::dominantAxisAccel},
    {SignalEnum::id(934), &F::dominantAxisGyro},
};

template <typename T, size_t N>
void appendFloats(const AccelFeature& feature, const FieldId<T> (&fields)[N], SignalList& out) {
  for (const auto& [id, field] : fields) {
    out.push_back(SignalFloat(id, static_cast<float>(feature.*field)));
  }
}

}  // namespace

SignalList AccelFeature::allSignals() const {
  SignalList signals;
  signals.reserve(4 + std::size(kLastSampleDoubles) + std::size(kLastSampleInts) +
                  std::size(kLastSampleBools) + std::size(kValidWindowDoubles) +
                  std::size(kValidWindowFloats));
  signals.push_back(SignalInt(SignalEnum::id(106), numberOfItems));
  signals.push_back(SignalBool(SignalEnum::id(192), validEntry));
  signals.push_back(SignalFloat(SignalEnum::id(128), numberOfSeconds));
  if (reasonForBeingInvalidEntry) {
    signals.push_back(
        SignalInt(SignalEnum::id(211), static_cast<int64_t>(*reasonForBeingInvalidEntry)));
  }
  if (numberOfItems >= 1) {
    appendFloats(*this, kLastSampleDoubles, signals);
    for (const auto& [id, field] : kLastSampleInts) signals.push_back(SignalInt(id, this->*field));
    for (const auto& [id, field] : kLastSampleBools) {
      signals.push_back(SignalBool(id, this->*field));
    }
  }
  if (validEntry) {
    appendFloats(*this, kValidWindowDoubles, signals);
    appendFloats(*this, kValidWindowFloats, signals);
  }
  return signals;
}

}  // namespace orvane
