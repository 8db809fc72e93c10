/// @file
/// Former home of quantile(), now in scene_config.h; kept only until its
/// last includers (zot_track, bench_pose_estimation) include that instead.
#pragma once

#include "scene_config.h"
