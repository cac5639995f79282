# The order of the steps of scripts/setup-windows-prefix, which calls this with ROOT and STEP set. Each step leaves a stamp.
# "libraries" is what the programs need; "media" adds FFmpeg for the transcode plug-in.
stamp := $(ROOT)/stamps

libraries: $(addprefix $(stamp)/,boost sqlite googletest protobuf expat spdlog tinyxml headers)
media: libraries $(stamp)/ffmpeg

# spdlog is built against the fmt of the prefix; FFmpeg against its zlib and x264.
$(stamp)/spdlog: $(stamp)/fmt
$(stamp)/ffmpeg: $(stamp)/zlib $(stamp)/x264

$(stamp)/%:
	+@$(STEP) $*

.PHONY: libraries media
