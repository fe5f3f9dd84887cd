/* Finds hotwords in a 16-bit mono WAV file with the C API.
 * usage: detect MODEL.kmodel FILE.wav */
#include <kestrel/kestrel.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc != 3) return fprintf(stderr, "usage: %s MODEL.kmodel FILE.wav\n", argv[0]), 2;
  FILE* wav = fopen(argv[2], "rb");
  char id[4];
  uint32_t size, rate = 0;
  if (wav == NULL || fseek(wav, 12, SEEK_SET) != 0) return perror(argv[2]), 1;
  /* The chunks up to the samples; the rate is at offset 4 of "fmt ". */
  while (fread(id, 1, 4, wav) == 4 && fread(&size, 4, 1, wav) == 1 && memcmp(id, "data", 4)) {
    if (memcmp(id, "fmt ", 4) == 0) fseek(wav, 4, SEEK_CUR), fread(&rate, 4, 1, wav), size -= 8;
    fseek(wav, size + (size & 1), SEEK_CUR);
  }
  kestrel_detector_options options;
  kestrel_detector_options_init(&options);
  options.sample_rate = (int32_t)rate;
  kestrel_detector* d;
  if (kestrel_detector_create_ex((const char* const*)&argv[1], 1, &options, &d) != KESTREL_OK)
    return fprintf(stderr, "%s\n", kestrel_last_error()), 1;
  int16_t samples[4096];
  const kestrel_detection* found;
  size_t n, count;
  do {
    n = fread(samples, sizeof samples[0], 4096, wav);
    if ((n > 0 ? kestrel_detector_process(d, samples, n, &found, &count)
               : kestrel_detector_flush(d, &found, &count)) != KESTREL_OK)
      return fprintf(stderr, "%s\n", kestrel_last_error()), 1;
    for (size_t i = 0; i < count; ++i)
      printf("hotword %d at %.2f s (score %.3f)\n", (int)found[i].hotword,
             (double)found[i].sample / rate, found[i].score);
  } while (n > 0);
  kestrel_detector_destroy(d);
  return fclose(wav), 0;
}
