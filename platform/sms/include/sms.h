/* The SMS PDU library: takes SMS-DELIVER, SMS-STATUS-REPORT and SMS-SUBMIT PDUs apart and builds SMS-SUBMIT PDUs, after
 * 3GPP TS 23.040 (transfer layer) and 3GPP TS 23.038 (alphabets).
 *
 * Every function may be called from any thread at any time; nothing blocks and nothing is kept between two calls but
 * the counter of concatenation references. */
#ifndef SMS_H
#define SMS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Capacities in bytes. Texts hold their terminating zero within them. */
enum {
    SMS_SENDER_SIZE = 100,
    SMS_DATE_SIZE = 12,
    SMS_TIME_SIZE = 12,
    SMS_SMSC_SIZE = 24,
    SMS_HEADER_TEXT_SIZE = 500,
    SMS_TYPE_OF_ADDRESS_SIZE = 52,
    SMS_USER_DATA_SIZE = 160,        /* one PDU carries 160 septets or 140 octets at most */
    SMS_TEXT_SIZE = 3 * 160 + 1,     /* the user data of one PDU as UTF-8 */
    SMS_PDU_TEXT_SIZE = 2 * 159 + 1, /* an SMS-SUBMIT with an empty service-centre address, in hexadecimal */
    SMS_NUMBER_SIZE = 20 + 1
};

enum { SMS_LONGEST_NUMBER = 20, SMS_MOST_PARTS = 255 };

/* What the user data of a PDU is written in. */
enum sms_alphabet {
    SMS_ALPHABET_GSM = -1,
    SMS_ALPHABET_ISO = 0, /* never reported for a PDU; sms_text() reads it as ISO 8859-1 */
    SMS_ALPHABET_BINARY = 1,
    SMS_ALPHABET_UCS2 = 2,
    SMS_ALPHABET_UTF8 = 3 /* never reported for a PDU */
};

/* Type of number of an address, TS 23.040 9.1.2.5. */
enum sms_number_type { SMS_NUMBER_BY_PLUS = 0, SMS_NUMBER_INTERNATIONAL = 1, SMS_NUMBER_NATIONAL = 2 };

enum sms_error {
    SMS_ERROR_ARGUMENT = -1,    /* a missing argument, an unknown mode, type or alphabet */
    SMS_ERROR_HEXADECIMAL = -2, /* an odd number of digits, another character, nothing at all */
    SMS_ERROR_TRUNCATED = -3,   /* the PDU ends before what it announces */
    SMS_ERROR_ADDRESS = -4,     /* longer than an address may be, or not a number that can be sent to */
    SMS_ERROR_LENGTH = -5,      /* more user data than one PDU may carry */
    SMS_ERROR_HEADER = -6,      /* the user-data header is longer than the user data */
    SMS_ERROR_TEXT = -7,        /* not valid UTF-8 */
    SMS_ERROR_TOO_LONG = -8,    /* more than SMS_MOST_PARTS parts, or more text than the buffer holds */
    SMS_ERROR_MEMORY = -9
};

/* Takes one PDU apart, as AT+CMGR and AT+CMGL give it: service-centre address first, in hexadecimal of either case;
 * blanks and line ends around it, and octets behind the last one that the PDU announces, are ignored.
 *
 * mode must be "old". Every output may be null; each text must hold its capacity above, user_data SMS_USER_DATA_SIZE
 * bytes. alphabet         enum sms_alphabet (TS 23.038 4; a reserved coding is read as the default alphabet, compressed
 * data is given as binary) sender           the originating address in UTF-8: digits without a plus sign, or a name;
 * for a status report the recipient, for an SMS-SUBMIT the destination date, time       "YY-MM-DD" and "HH:MM:SS" of
 * the service-centre time stamp, in the stamp's own zone, as its digits stand, possible or not; empty for an SMS-SUBMIT
 *   user_data        what stands behind the user-data header: for the GSM alphabet one septet per byte with the escape
 *                    code kept, for UCS2 the big-endian units, otherwise the octets
 *   smsc             the service-centre address, as the sender
 *   with_header      1 when the user data begins with a header, else 0
 *   header_text      that header with its length octet, as "05 00 03 2A 03 01"
 *   type_of_address  of the sender: "international", "national" (whatever is neither of the others) or "alphanumeric"
 * The outputs called unused are set to zero; unused_text_1, unused_text_2 and the last argument have no effect.
 *
 * A status report has no user data. A reserved message type is read as SMS-DELIVER (TS 23.040 9.2.3.1).
 *
 * Returns the number of bytes in user_data (0 to SMS_USER_DATA_SIZE), or a negative enum sms_error; then every output
 * is all zeros. */
int splitpdu(const char *pdu, const char *mode, int *alphabet, char *sender, char *date, char *time,
             unsigned char *user_data, char *smsc, int *with_header, char *header_text, char *unused_text_1,
             int *unused_1, int *unused_2, char *type_of_address, int *unused_3, int *unused_4, char *unused_text_2,
             int *unused_5, int constant_1);

/* One part of a message to send. */
struct sms_pdu {
    int alphabet;                 /* SMS_ALPHABET_GSM or SMS_ALPHABET_UCS2 */
    char pdu[SMS_PDU_TEXT_SIZE];  /* upper-case hexadecimal, empty service-centre address first */
    int number_type;              /* type of number of the destination: 0 unknown, 1 international, 2 national */
    char number[SMS_NUMBER_SIZE]; /* the destination's digits without a plus sign */
    int length;                   /* octets behind the service-centre address, what AT+CMGS announces */
    struct sms_pdu *next;
};

/* Builds the SMS-SUBMIT PDUs for a text, in the order in which they are to be sent.
 *
 * destination  digits, '*' and '#', SMS_LONGEST_NUMBER at most; blanks and dashes are skipped, one plus sign may lead
 * type         enum sms_number_type: SMS_NUMBER_BY_PLUS takes a number with a plus sign as international and leaves the
 *              type of any other unknown to the network; the other two hold whether there is a plus sign or not
 * text         text_length bytes of UTF-8, not necessarily terminated; an empty text is one PDU
 * head         receives the list, to be freed with free_list(); what it held before is not looked at
 * constant_0   has no effect
 *
 * The text goes in the GSM alphabet when that and its extension have every character, else in UCS2. One PDU holds 160
 * septets or 70 UCS2 units; a longer text is cut into parts of at most 153 or 67, never within an escape or surrogate
 * pair, joined by an 8-bit reference that differs from that of the message before. The validity period is one day; no
 * status report is asked for.
 *
 * Returns 0, or a negative enum sms_error; then the list is empty. */
int encode_pdu(const char *destination, int type, const char *text, int text_length, struct sms_pdu **head,
               int constant_0);

/* Tells how many PDUs encode_pdu() would build from the same arguments, and in which alphabet. Returns their number, or a
 * negative enum sms_error. */
int sms_parts(const char *destination, int type, const char *text, int text_length, int *alphabet);

/* Prints one element to standard output for diagnosis, one member per line, control characters escaped. */
void print_sms_pdu(const struct sms_pdu *element);

/* Frees a list and empties its head; a null or empty head is fine. */
void free_list(struct sms_pdu **head);

/* Writes user data as UTF-8.
 *
 * user_data, length  as splitpdu() gives them, or the joined user data of several parts
 * alphabet           enum sms_alphabet; binary data is no text and is refused
 * header_text        the header of that data, for its national language tables (TS 23.040 9.2.3.24.15 and .16, tables
 *                    of TS 23.038 annex A); null or empty for none. A header that cannot be parsed is ignored.
 * text, text_size    receives the text and its terminating zero; 3 * length + 1 bytes always suffice
 *
 * A septet pair that is in no extension table gives the second one's character of the main table, an escape without a
 * character a blank, a lone surrogate or an invalid sequence U+FFFD.
 *
 * Returns the bytes written without the terminating zero, or a negative enum sms_error; then text is empty. */
int sms_text(const unsigned char *user_data, size_t length, int alphabet, const char *header_text, char *text,
             size_t text_size);

/* The same without a header, and without the national language tables in the program. */
int sms_plain_text(const unsigned char *user_data, size_t length, int alphabet, char *text, size_t text_size);

#ifdef __cplusplus
}
#endif

#endif
