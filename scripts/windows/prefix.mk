# The parts of the Windows libraries, and for each those that it is built with. scripts/setup-windows-prefix calls this with STEP
# set; prefix-step reads it too. "libraries" is what the programs need; "media" adds FFmpeg for the transcode plug-in.

libraries: boost sqlite googletest protobuf expat fmt spdlog tinyxml headers curl
media: libraries ffmpeg

spdlog: fmt
ffmpeg: zlib x264

boost sqlite googletest protobuf expat fmt spdlog tinyxml headers curl zlib x264 ffmpeg:
	+@$(STEP) $@

.PHONY: libraries media boost sqlite googletest protobuf expat fmt spdlog tinyxml headers curl zlib x264 ffmpeg
