/* System log of the switch operating system. */
#ifndef EF_SYSLOG_H
#define EF_SYSLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* One log record: level, module name, tag, a parameter passed through
 * unchanged, and a printf-style text. Returns 0. */
int printk_syslog_ext(int level, const char *module, const char *tag, int flag,
                      const char *fmt, ...) __attribute__((format(printf, 5, 6)));

/* Writes the current time as text into buf (at most len bytes, zero
 * terminated). flag is reserved. Returns the text's length. */
int syslog_get_current_time(char *buf, int len, int flag);

#ifdef __cplusplus
}
#endif

#endif
