/*
 * Key-filtered copy of a parsed JSON answer (the utility script's output):
 * the part of it that goes to the server, under fixed key lists.
 *
 *   cJSON *json_filter_copy(source, top_keys, item_keys)
 *
 * Key lists are arrays of member names ending with NULL.  The result is a
 * new object that holds, in the order of top_keys, each listed key that
 * the source object has (members are looked up as the accessors do, so
 * without regard to case; the copy carries the name as listed).  Source
 * members that are not listed are dropped; listed keys that the source
 * lacks are left out.  Each copied member takes its value by type:
 *
 *   true / false  the same boolean
 *   null          the empty string ""
 *   number        the number without its fraction (toward zero: -61.5
 *                 gives -61); it is not clamped to the range of an int
 *   string        the same string, except under the keys "rx" and "tx",
 *                 where the text is converted with atof and given as a
 *                 number ("1234" gives 1234, "12.5" gives 12.5, text that
 *                 is not a number gives 0)
 *   array         an array whose every element is the filtered copy of
 *                 that element under item_keys (with no nested keys of
 *                 its own); an element that is not an object becomes {};
 *                 with item_keys NULL the array is empty
 *   object        the filtered copy of that object under item_keys (no
 *                 nested keys of its own); with item_keys NULL the member
 *                 is left out
 *
 * A source that is not an object gives an empty object.  A NULL source or
 * a NULL top_keys gives NULL.  The source is only read; the result belongs
 * to the caller (cJSON_Delete, or hand it to a tree that takes it).
 */
#ifndef KC_JSON_FILTER_H
#define KC_JSON_FILTER_H

struct cJSON;

cJSON *json_filter_copy(const cJSON *source, const char *const *top_keys,
                        const char *const *item_keys);

#endif
