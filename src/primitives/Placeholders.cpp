// Symbols that programs linked against this library may ask for, under names of FFmpeg's internals. None does
// anything.

#define PLACEHOLDER extern "C" __attribute__((visibility("default"))) void

PLACEHOLDER av_convert_lang_to() {}
PLACEHOLDER avpriv_dv_get_packet() {}
PLACEHOLDER avpriv_dv_init_demux() {}
PLACEHOLDER avpriv_dv_produce_packet() {}
PLACEHOLDER avpriv_mpegts_parse_close() {}
PLACEHOLDER avpriv_mpegts_parse_open() {}
PLACEHOLDER avpriv_mpegts_parse_packet() {}
PLACEHOLDER ff_rtp_get_local_rtcp_port() {}
PLACEHOLDER ff_rtp_get_local_rtp_port() {}
PLACEHOLDER ff_rtsp_parse_line() {}
