/* Marks the functions that libTavlenCommon.so exports; every other one stays hidden. */
#ifndef TAVLEN_COMMON_TAVLEN_API_H
#define TAVLEN_COMMON_TAVLEN_API_H

#define TAVLEN_API __attribute__((visibility("default")))

#endif
