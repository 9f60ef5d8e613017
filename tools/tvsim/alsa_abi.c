/* Writes the ALSA control-device ABI of the machine it is built on as JSON: the ioctl request
 * numbers, constants, and the sizes and offsets of the structures that the emulated control
 * device of the integration tests reads and writes. Usage: alsa_abi OUTPUT-FILE */
#include <stddef.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/types.h>
#include <sound/asound.h>

#define MEMBER_SIZE(type, member) sizeof(((struct type *)0)->member)

static FILE *out;
static const char *separator;

static void begin(const char *section)
{
    fprintf(out, "%s\n  \"%s\": {", separator, section);
    separator = "";
}

static void number(const char *name, unsigned long long value)
{
    fprintf(out, "%s\n    \"%s\": %llu", separator, name, value);
    separator = ",";
}

static void end(void)
{
    fprintf(out, "\n  }");
    separator = ",";
}

#define IOCTL(name) number(#name, (unsigned long)(name))
#define CONST(name) number(#name, (unsigned long long)(name))
#define SIZE(type) number("sizeof_" #type, sizeof(struct type))
#define OFFSET(type, member, label) number(#type "." label, offsetof(struct type, member))
#define FIELD(type, member, label) \
    (OFFSET(type, member, label), number(#type "." label ".size", MEMBER_SIZE(type, member)))

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s OUTPUT-FILE\n", argv[0]);
        return 2;
    }
    out = fopen(argv[1], "w");
    if (!out) {
        perror(argv[1]);
        return 1;
    }
    separator = "{";

    begin("ioctl");
    IOCTL(SNDRV_CTL_IOCTL_PVERSION);
    IOCTL(SNDRV_CTL_IOCTL_CARD_INFO);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_LIST);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_INFO);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_READ);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_WRITE);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_LOCK);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_UNLOCK);
    IOCTL(SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_ADD);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_REPLACE);
    IOCTL(SNDRV_CTL_IOCTL_ELEM_REMOVE);
    IOCTL(SNDRV_CTL_IOCTL_TLV_READ);
    IOCTL(SNDRV_CTL_IOCTL_TLV_WRITE);
    IOCTL(SNDRV_CTL_IOCTL_TLV_COMMAND);
    IOCTL(SNDRV_CTL_IOCTL_HWDEP_NEXT_DEVICE);
    IOCTL(SNDRV_CTL_IOCTL_PCM_NEXT_DEVICE);
    IOCTL(SNDRV_CTL_IOCTL_RAWMIDI_NEXT_DEVICE);
    IOCTL(SNDRV_CTL_IOCTL_POWER);
    IOCTL(SNDRV_CTL_IOCTL_POWER_STATE);
    end();

    begin("const");
    CONST(SNDRV_CTL_VERSION);
    CONST(SNDRV_CTL_ELEM_TYPE_BOOLEAN);
    CONST(SNDRV_CTL_ELEM_TYPE_INTEGER);
    CONST(SNDRV_CTL_ELEM_TYPE_ENUMERATED);
    CONST(SNDRV_CTL_ELEM_TYPE_BYTES);
    CONST(SNDRV_CTL_ELEM_TYPE_INTEGER64);
    CONST(SNDRV_CTL_ELEM_IFACE_CARD);
    CONST(SNDRV_CTL_ELEM_IFACE_MIXER);
    CONST(SNDRV_CTL_ELEM_IFACE_PCM);
    CONST(SNDRV_CTL_ELEM_ACCESS_READ);
    CONST(SNDRV_CTL_ELEM_ACCESS_WRITE);
    CONST(SNDRV_CTL_ELEM_ACCESS_VOLATILE);
    CONST(SNDRV_CTL_ELEM_ACCESS_INACTIVE);
    number("sizeof_int", sizeof(int));
    number("sizeof_long", sizeof(long));
    number("sizeof_long_long", sizeof(long long));
    end();

    begin("struct");
    SIZE(snd_ctl_card_info);
    FIELD(snd_ctl_card_info, card, "card");
    FIELD(snd_ctl_card_info, id, "id");
    FIELD(snd_ctl_card_info, driver, "driver");
    FIELD(snd_ctl_card_info, name, "name");
    FIELD(snd_ctl_card_info, longname, "longname");
    FIELD(snd_ctl_card_info, mixername, "mixername");
    FIELD(snd_ctl_card_info, components, "components");

    SIZE(snd_ctl_elem_id);
    FIELD(snd_ctl_elem_id, numid, "numid");
    FIELD(snd_ctl_elem_id, iface, "iface");
    FIELD(snd_ctl_elem_id, device, "device");
    FIELD(snd_ctl_elem_id, subdevice, "subdevice");
    FIELD(snd_ctl_elem_id, name, "name");
    FIELD(snd_ctl_elem_id, index, "index");

    SIZE(snd_ctl_elem_list);
    FIELD(snd_ctl_elem_list, offset, "offset");
    FIELD(snd_ctl_elem_list, space, "space");
    FIELD(snd_ctl_elem_list, used, "used");
    FIELD(snd_ctl_elem_list, count, "count");
    FIELD(snd_ctl_elem_list, pids, "pids");

    SIZE(snd_ctl_elem_info);
    FIELD(snd_ctl_elem_info, id, "id");
    FIELD(snd_ctl_elem_info, type, "type");
    FIELD(snd_ctl_elem_info, access, "access");
    FIELD(snd_ctl_elem_info, count, "count");
    FIELD(snd_ctl_elem_info, owner, "owner");
    FIELD(snd_ctl_elem_info, value.integer.min, "integer.min");
    FIELD(snd_ctl_elem_info, value.integer.max, "integer.max");
    FIELD(snd_ctl_elem_info, value.integer.step, "integer.step");
    FIELD(snd_ctl_elem_info, value.integer64.min, "integer64.min");
    FIELD(snd_ctl_elem_info, value.integer64.max, "integer64.max");
    FIELD(snd_ctl_elem_info, value.integer64.step, "integer64.step");
    FIELD(snd_ctl_elem_info, value.enumerated.items, "enumerated.items");
    FIELD(snd_ctl_elem_info, value.enumerated.item, "enumerated.item");
    FIELD(snd_ctl_elem_info, value.enumerated.name, "enumerated.name");

    SIZE(snd_ctl_elem_value);
    FIELD(snd_ctl_elem_value, id, "id");
    FIELD(snd_ctl_elem_value, value.integer.value, "integer.value");
    FIELD(snd_ctl_elem_value, value.integer64.value, "integer64.value");
    FIELD(snd_ctl_elem_value, value.enumerated.item, "enumerated.item");
    FIELD(snd_ctl_elem_value, value.bytes.data, "bytes.data");
    end();

    fprintf(out, "\n}\n");
    if (fclose(out) != 0) {
        perror(argv[1]);
        return 1;
    }
    return 0;
}
