/*
 * Colouring of the "method" value in the frame dumps.  Changes the text in
 * place (within capacity bytes); allocates nothing.
 */
#ifndef KC_UTIL_COLOUR_H
#define KC_UTIL_COLOUR_H

/* Colours the value after "key" in text (capacity bytes) in place: the
 * colour right after the value's opening quote, a reset right before its
 * closing quote.  1 if done, 0 when the key, its value or the room is
 * missing (text unchanged). */
int colour_json_value(char *text, unsigned int capacity, const char *key,
                      const char *colour);

#endif
