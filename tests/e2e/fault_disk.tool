# The disk fills during a configuration transfer: a chunk fails, the tool is
# told, the old file stays; a transfer that fits then works.
@setup head -c 3000 /dev/zero | tr '\0' c >/sdk/config/dsp_config && cp /sdk/config/dsp_config /.sb/old
@setup head -c 98304 /dev/zero | tr '\0' n >/tmp/big && echo hello >/tmp/small
@tmpfs /sdk/config 65536
probe
push /tmp/big cfg.bin 3000 fail
expect file /sdk/config/dsp_config same /.sb/old
push /tmp/small cfg.bin
expect dsp "dsp resync_app\n"
expect file /sdk/config/dsp_config same /tmp/small
expect count log "[DSPTOOL] failed to write data to file" 1
