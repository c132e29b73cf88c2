# Configuration file transfer: the exact reply frames, a lost reply and a
# resent chunk, a bad chunk, the main configuration and its resync, another
# name under xml/, and the frames that come out of turn.
@setup echo OLD >/sdk/config/dsp_config
probe
frame 2 6 0 0 0 "cfg.bin"
expect reply "\x55\xAA\x01\x82\x01\x00\x00\x7D"
frame 1 0 0 "hello\n"
expect reply "\x55\xAA\x01\x81\x01\x00\x00\x7E"
# The reply was lost: the same chunk again.
frame 1 0 0 "hello\n"
expect status 0
expect file /sdk/config/dsp_config is "OLD\n"
frame 3 6 0 0 0
expect status 0
expect dsp "dsp resync_app\n"
expect file /sdk/config/dsp_config is "hello\n"
expect no file /sdk/config/dsp_config.tmp
# Another name lands under xml/ without a DSP command.
frame 2 6 0 0 0 "eq.xml\0"
expect status 0
badframe 1 0 0 "abc"
expect status 1
frame 1 0 0 "abc"
expect status 0
frame 1 1 0 "def"
expect status 0
frame 1 1 0 "def"
expect status 0
frame 3 6 0 0 0
expect status 0
expect file /sdk/config/xml/eq.xml is abcdef
frame 3 6 0 0 0
expect log "[DSPTOOL] file not opened"
frame 4 "x"
expect log "[DSPTOOL] invalid data transfer cmd 4"
frame 0
expect log "[DSPTOOL] invalid data transfer cmd 0"
push /sdk/config/xml/eq.xml cfg.bin
expect dsp "dsp resync_app\n"
expect count log "[DSPTOOL] data checksum is wrong" 1
