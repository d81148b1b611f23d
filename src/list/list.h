/*
 * list.h - the listings: the stored files of one area (list.cpp), the
 * areas themselves (uid_usr_pas.cpp), and the lookups of one stored file
 * (lookup.cpp).
 */
#ifndef KOVDSK_LIST_H
#define KOVDSK_LIST_H

#include "shared/shared.h"

// Sort comparators of the id and pass arrays (8-byte records, ascending as
// unsigned numbers) and of the user array (65-byte records, by strcmp).
int KovDskIdCmp(const void *a, const void *b);
int KovDskUsrCmp(const void *a, const void *b);

#endif // KOVDSK_LIST_H
