# Failed transfers keep the old file: sizes that differ, a short file, names
# that are refused, a chunk with no file open, a name that is a directory,
# a frame too long; then a good transfer whose resync the service refuses.
@setup echo OLD >/sdk/config/dsp_config && mkdir /sdk/config/xml/dir && echo k >/sdk/config/xml/dir/keep
@setup head -c 4000 /dev/zero | tr '\0' z >/tmp/z
@rule reply|dsp resync_app|[err]
probe
frame 2 5 0 0 0 "cfg.bin"
expect status 0
frame 1 0 0 "hello"
expect status 0
frame 3 6 0 0 0
expect status 1
expect log "size information in START_SEND_DATA and END_SEND_DATA is different"
frame 1 1 0 "x"
expect status 1
expect log "failed to write data to file"
frame 2 5 0 0 0 "cfg.bin"
expect status 0
frame 1 0 0 "hel"
expect status 0
frame 3 5 0 0 0
expect status 1
expect log "received file size is wrong"
frame 2 1 0 0 0 "../dsp_config"
expect status 1
expect log "refused configuration file name"
frame 1 0 0 "x"
expect status 1
expect log "failed to write data to file"
frame 2 1 0 0 0 "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn"
expect status 1
expect log "refused configuration file name"
frame 2 1 0 0 0
expect status 1
expect log "refused configuration file name"
frame 2 "abc"
expect status 1
expect log "START_SEND_DATA too short"
frame 2 1 0 0 0 "dir"
expect status 0
frame 1 "x"
expect status 1
expect log "failed to write data to file"
frame 1 0 0 "x"
expect status 0
frame 3 1 0 0 0
expect status 1
expect log "failed to rename configuration file"
frame 1 0 0 @/tmp/z
expect status 1
expect log "data frame of 4009 bytes is too long, dropped"
expect file /sdk/config/dsp_config is "OLD\n"
expect file /sdk/config/xml/dir/keep is "k\n"
# The long frame left nothing behind.
send "mon"
expect reply "MN>"
push /sdk/config/xml/dir/keep cfg.bin
expect dsp "dsp resync_app\n"
expect log "[DSPTOOL] dsp resync_app failed, may need reboot to sync new configuration"
expect file /sdk/config/dsp_config is "k\n"
expect count log "[DSPTOOL] command failed" 1
