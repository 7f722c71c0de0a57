// Green screen, stage 3 of 4: srcImage is the mask of stage 2, image2 the
// foreground. Softens the mask over the four diagonals and removes the key
// colour's spill from the foreground; the result carries the mask in alpha.
varying vec2 tex_coord;

uniform sampler2D srcImage;
uniform sampler2D image2;

void main()
{
    vec2 dx = vec2(1.0 / 640.0, 0.0);
    vec2 dy = vec2(0.0, 1.0 / 360.0);
    vec4 centre = texture2D(srcImage, tex_coord);
    vec4 mask = centre * 0.2;
    mask += texture2D(srcImage, tex_coord - dx - dy) * 0.2;
    mask += texture2D(srcImage, tex_coord + dx - dy) * 0.2;
    mask += texture2D(srcImage, tex_coord - dx + dy) * 0.2;
    mask += texture2D(srcImage, tex_coord + dx + dy) * 0.2;
    float spillVal = centre.b;
    float fullMask = mask.a;

    vec4 fg = texture2D(image2, tex_coord);
    float desat = clamp(fg.r * 0.2126 + fg.g * 0.7152 + fg.b * 0.0722, 0.0, 1.0);
    float fRB = (fg.r + fg.b) * 0.45;
    // A black pixel would divide by zero.
    float fSpSc = fRB * fullMask / max(desat, 0.0001);
    if (fullMask < 0.999) {
        fSpSc *= fRB;
        fullMask = pow(fullMask, 3.0 - 2.0 * fRB);
    }
    spillVal *= min(fSpSc, 1.0);
    vec3 rgb = vec3(desat, desat * 0.93, desat) * (1.0 - spillVal) + fg.rgb * spillVal;
    gl_FragColor = vec4(rgb, fullMask);
}
