# A wall clock that cannot be read and no DSP queue: the link still gives
# up after its three seconds.
@preload tests/libtime_broken.so
@emulated all a static binary cannot be LD_PRELOADed, and its time() is the one linked in
@dsp none
expect exit 255
expect log "[DSPTOOL] Cannot get the message queue"
