#!/usr/bin/env bash
# Makes the samples that take an encoder or an office program's writer anew. They are checked in, so that tests need none
# of these: ffmpeg, pandoc, groff, imagemagick, webp, libheif-examples, libimage-exiftool-perl, gnumeric, python3-odf,
# p7zip-full, zip.
set -euo pipefail
cd "$(dirname "$0")/samples"
export SOURCE_DATE_EPOCH=1700000000

tone=(-f lavfi -i "sine=frequency=440:sample_rate=44100:duration=1" -ac 2)
tags=(-metadata title="Morning Heron" -metadata artist="Ada Quill" -metadata album="Reed Songs" -metadata genre="Folk"
      -metadata date=2021 -metadata track=3 -metadata composer="Bela Moor" -metadata comment="recorded at dawn")
encode() { ffmpeg -v error -y -bitexact "$@"; }
encode "${tone[@]}" "${tags[@]}" -id3v2_version 3 -b:a 32k sound.mp3
encode "${tone[@]}" "${tags[@]}" -b:a 32k sound.m4a
encode "${tone[@]}" "${tags[@]}" -sample_fmt s16 sound.flac
encode "${tone[@]}" "${tags[@]}" -c:a libvorbis -q:a 0 sound.ogg
encode "${tone[@]}" "${tags[@]}" -b:a 32k sound.wma
encode -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=0.5" "${tags[@]}" sound.wav
encode -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=0.5" "${tags[@]}" -write_id3v2 1 sound.aiff

picture=(-f lavfi -i "testsrc=size=64x48:rate=10:duration=1")
for kind in mp4 mov mkv; do
  encode "${picture[@]}" "${tone[@]}" -metadata title="Heron Film" -c:v libx264 -pix_fmt yuv420p -c:a aac -b:a 32k film.$kind
done
encode "${picture[@]}" "${tone[@]}" -metadata title="Heron Film" -c:v mpeg4 -c:a libmp3lame -b:a 32k film.avi

convert -size 64x48 gradient:blue-white -strip plain.png
for kind in jpg png tiff webp; do
  convert plain.png -quality 50 photo.$kind
done
heif-enc -q 20 plain.png -o photo.heic >/dev/null
for kind in jpg png tiff webp heic; do
  exiftool -q -overwrite_original -EXIF:Make="Lumen" -EXIF:Model="Field 7" -EXIF:ISO=200 -EXIF:ExposureTime=1/250 \
    -EXIF:FNumber=2.8 -EXIF:FocalLength=35 -EXIF:DateTimeOriginal="2022:05:06 07:08:09" -EXIF:XResolution=300 \
    -EXIF:YResolution=300 -EXIF:ResolutionUnit=inches -EXIF:Flash#=1 -XMP-dc:Title="Heron at the weir" \
    -XMP-dc:Subject=heron -XMP-dc:Subject=water -XMP-xmp:Rating=4 photo.$kind
done
exiftool -q -overwrite_original -IPTC:City="Lund" -IPTC:Country-PrimaryLocationName="Sweden" -IPTC:By-line="Ada Quill" \
  -IPTC:Keywords=reeds -IPTC:Caption-Abstract="A heron waits" photo.jpg
rm plain.png

cat >text.md <<'END'
---
title: The Heron Report
author: Ada Quill
keywords: [heron, weir]
subject: Birds
---

# Arrival

The grey heron came to the *weir* at dawn. Zażółć gęślą jaźń.

- first sighting
- second sighting

| place | count |
|-------|-------|
| weir  | 17    |
END
pandoc text.md -o letter.docx
pandoc text.md -o letter.odt
pandoc text.md -t pptx -o slides.pptx
pandoc text.md -o book.epub
pandoc -s text.md -t rtf -o letter.rtf
rm text.md

printf '.pdfinfo /Title The Heron Report\n.pdfinfo /Author Ada Quill\nThe grey heron came to the weir at dawn.\n.bp\nSecond page: reeds.\n' |
  groff -Tpdf >paper.pdf

printf 'place,seen,bird\nweir,17,grey heron\n"Zażółć gęślą jaźń",2.5,dipper\n' >table.csv
ssconvert table.csv table.xlsx 2>/dev/null
ssconvert table.csv table.ods 2>/dev/null
rm table.csv
/usr/bin/python3 - <<'END'
from odf import dc, draw, meta, style, text
from odf.opendocument import OpenDocumentPresentation

slides = OpenDocumentPresentation()
layout = style.PageLayout(name="L")
slides.automaticstyles.addElement(layout)
master = style.MasterPage(name="M", pagelayoutname=layout)
slides.masterstyles.addElement(master)
slides.meta.addElement(dc.Title(text="The Heron Report"))
slides.meta.addElement(meta.InitialCreator(text="Ada Quill"))
for words in ["The grey heron came to the weir at dawn."], ["first sighting", "Zażółć gęślą jaźń."]:
    page = draw.Page(masterpagename=master)
    slides.presentation.addElement(page)
    frame = draw.Frame(width="20cm", height="5cm", x="1cm", y="1cm")
    page.addElement(frame)
    box = draw.TextBox()
    frame.addElement(box)
    for line in words:
        box.addElement(text.P(text=line))
slides.save("slides.odp")
END

mkdir birds
printf grey >heron.txt
printf grey >birds/crane.txt
7z a -bso0 names.7z heron.txt birds
zip -qr -X names.zip heron.txt birds
tar -cf names.tar heron.txt birds
rm -r heron.txt birds
