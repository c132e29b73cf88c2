# A read-back query that gets no answer is reported and the script goes on.
probe
timeout 2000
query s4_bm_x
expect log "[DSPTOOL] unknown command dsp s4_bm_x"
query s4_prf
