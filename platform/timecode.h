// The default timecode system of the host application (the companion library's timecode settings):
// a process-wide value the application sets and the library's video-frame helpers read.
#pragma once

namespace zr::os {

// 0 until the application sets another (the environment variable ZROBJ_TIMECODE_SYSTEM gives the
// start value).
int GetDefTimecodeSystem();
void SetDefTimecodeSystem(int system);

}  // namespace zr::os
