// Green screen, stage 2 of 4: smooths the distance of stage 1 over five
// points and turns it into the spill value (blue) and the mask (alpha).
varying vec2 tex_coord;

uniform sampler2D srcImage;
uniform vec2 pixel_size = vec2(1.0 / 640.0, 1.0 / 360.0);
uniform float similarity = 0.4;
uniform float smoothness = 0.08;
uniform float spill = 0.1;

// Two directions 60 degrees apart, in pixels of a 640 x 360 picture.
const vec2 pt0 = vec2(1.0 / 640.0, 1.732 / 360.0);
const vec2 pt1 = vec2(1.732 / 640.0, -1.0 / 360.0);

void main()
{
    vec4 src = texture2D(srcImage, tex_coord);
    float dist = src.a;
    dist += texture2D(srcImage, tex_coord - pt0).a;
    dist += texture2D(srcImage, tex_coord + pt0).a;
    dist += texture2D(srcImage, tex_coord - pt1).a;
    dist += texture2D(srcImage, tex_coord + pt1).a;
    float baseMask = dist / 5.0 - similarity;
    float spillVal = pow(clamp(baseMask / spill, 0.0, 1.0), 1.5);
    float fullMask = pow(clamp(baseMask / smoothness, 0.0, 1.0), 1.5);
    gl_FragColor = vec4(src.r, src.g, spillVal, fullMask);
}
