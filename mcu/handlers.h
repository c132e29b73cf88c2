// Handlers of mcu_handler_table and what the links share of them.
#pragma once
#include <cstdint>

int handler_mix_mode(const uint8_t* p, uint8_t len);
int handler_system_word(const uint8_t* p, uint8_t len);
int handler_delay(const uint8_t* p, uint8_t len);
int handler_vol(const uint8_t* p, uint8_t len);
int handler_atmos(const uint8_t* p, uint8_t len);
int handler_bm(const uint8_t* p, uint8_t len);
int handler_music_play(const uint8_t* p, uint8_t len);
int handler_record_control(const uint8_t* p, uint8_t len);
int handler_dtsx(const uint8_t* p, uint8_t len);
int handler_ota_control(const uint8_t* p, uint8_t len);
int handler_udisk_upg_control(const uint8_t* p, uint8_t len);

// Settings helpers shared between handlers.
void set_dsp_input_src(int id);
void update_format_mode();
void set_dsp_app_mode(uint8_t word);
double vol_byte_to_db(uint8_t v);
int bm_gain_from_byte(uint8_t v);

// Reports (12-byte payloads owned by the caller).
int get_audio_info(uint8_t* payload);
int send_audio_info(uint8_t* payload);
int send_record_state();
// A report from a new buffer.
void make_audio_report();
// The walks of the two status replies (modified in place) into a report.
void walk_audio_info(char* reply, uint8_t* payload);
void walk_channel_energy(char* reply, uint8_t* payload);

// Worker routines.
void* audio_poll_thread(void*);
void* audio_pipe_thread(void* pipe_fd);
void* music_monitor_thread(void*);
